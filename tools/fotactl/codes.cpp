#include "codes.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>

#include "command.h"
#include "install/engine_errors.h"

namespace {

struct kind_row {
    code_kind kind;
    const char* singular;
    const char* heading;
    const char* introduction;
    const char* columns[5];  // of the page; null: this kind does without
};

// What is said of a code that fota_client.h names and gives a meaning.
struct advice_row {
    int code;
    const char* cause;
    const char* action;
};

// Where the help of a command does not say what its event asks for.
struct event_row {
    int event;
    const char* meaning;
    const char* action;
};

struct code_row {
    code_kind kind;
    int64_t number;
    const char* name;
    const char* meaning;
    const char* cause;
    const char* action;
    int64_t end_of_range = 0;

    constexpr int64_t last() const { return end_of_range == 0 ? number : end_of_range; }
};

// clang-format off
constexpr kind_row KINDS[] = {
    {code_kind::RESULT, "result code", "Result codes",
     "What the daemon answers each request with, and what its log calls `rc`.",
     {"number", "name", "meaning", "usual cause", "what to do"}},
    {code_kind::CLIENT_ERROR, "client error", "Client errors",
     "What the client library returns when there was no answer.",
     {"number", "name", "meaning", "usual cause", "what to do"}},
    {code_kind::EVENT, "event", "Events",
     "What a request asks for.",
     {"number", "name", "meaning", nullptr, "by hand"}},
    {code_kind::OUTCOME, "FUMO code", "Outcomes",
     "The status of a history record: the codes of the OMA-DM firmware update management object (FUMO). The daemon "
     "itself records 0, 200, 404, 409, 410 and those of the installer's errors below; agents may record any.",
     {"number", nullptr, "meaning", "usual cause", "what to do"}},
    {code_kind::ENGINE_ERROR, "installer engine error", "Installer engine errors",
     "What the installer leaves in `staging/result_failure`, there as a signed decimal number. The record gets the FUMO "
     "code and this text; usual cause and what to do are that code's.",
     {"number", nullptr, "meaning", nullptr, nullptr}},
    {code_kind::EXIT_STATUS, "exit status", "Exit statuses",
     "What the programs end with.",
     {"number", "program", "meaning", "usual cause", "what to do"}},
};

constexpr char SEE_LOG[] = "/var/log/debug_log on the device says more.";
constexpr char NEW_PACKAGE[] = "Get the package again, from whoever signs packages for this device.";
constexpr char ASK_AGENT[] = "Look at the reason in the record, and in the log of the agent that recorded it.";
constexpr char BY_AGENT[] = "An agent gave the update up, with 'fotactl abort' or the request behind it.";

constexpr advice_row ADVICE[] = {
    {FOTA_RC_SUCCESS, "The request was carried out.", "Nothing."},
    {FOTA_RC_FAILURE,
     "A file, a command or a check failed; for a validation: the package is damaged, not signed for this device, or its "
     "path holds a blank.", SEE_LOG},
    {FOTA_RC_INVALID_PARAM,
     "The session is not this agent's, nothing has been validated in it, or a field is empty or out of range.", SEE_LOG},
    {FOTA_RC_NO_MEMORY, "Other programs take the memory.",
     "Try again when the device is less busy."},
    {FOTA_RC_LOCK_NOT_AVAILABLE, "Two agents want to update at the same time, or one is gone and "
     "has left its session open.",
     "Ask that agent to finish, or give its name; 'fotactl file read /opt/qast/data/fota/session' shows it."},
    {FOTA_RC_NO_SESSION, "The session was never taken, or a package that failed has ended it.",
     "Take it first, with 'fotactl lock'."},
    {FOTA_RC_PKG_NOT_FOUND, "The path is mistyped or not one on the device.",
     "Check the path, and that the package is there."},
    {FOTA_RC_PKG_NOT_REGULAR, "The path names a folder or a device.",
     "Give the path of the package itself."},
    {FOTA_RC_PKG_TOO_BIG, "The package is more than twice as large as the device's configuration allows.",
     "'fotactl max-size' and 'fotactl sideload-max-size' show the limits."},
    {FOTA_RC_NO_FLASH_SPACE, "The file system is full, or an old package still lies there.",
     "Make room on the file system of /opt/qast/data/fota, of which 4 MiB always stay free."},
    {FOTA_RC_PKG_INVALID, "The upload was cut short, or the bundle is for other keys.", NEW_PACKAGE},
    {FOTA_RC_PKG_VALIDATION_FAILED, "The package is damaged, or made with other keys.", NEW_PACKAGE},
    {FOTA_RC_SRC_VERSION_MISMATCH, "The device has been updated since, or the package is for "
     "another model.", "Get the package that updates the installed version."},
    {FOTA_RC_INSTALL_START_FAILED, "Nothing has been validated in this session.",
     "Validate a package first; /var/log/debug_log says what failed."},
    {FOTA_RC_RECORD_NOT_FOUND, "The record never was, or 20 newer ones have replaced it.",
     "'fotactl history' shows which there are."},
    {FOTA_RC_SIDELOAD_IN_PROGRESS, "A user's upload is being installed.",
     "Only 'fotactl upgrade-status' is answered until it has ended; try again then."},
    {FOTA_RC_FILE_NOT_FOUND, "The file is missing or nobody may read it.", SEE_LOG},
    {FOTA_RC_FILE_CREATE_FAILED, "Its folder is missing, or the file system is full or read-only.",
     SEE_LOG},
    {FOTA_RC_FILE_WRITE_FAILED, "The file system is full.", SEE_LOG},
    {FOTA_RC_EMPTY_OR_SYNC_FAILED,
     "The data directory is missing or cannot be opened. The file itself is complete, but a power cut may take it.", SEE_LOG},
    {FOTA_RC_FULL_FOTA_IN_PROGRESS, "A full image is being installed, or was interrupted.",
     "Only 'fotactl upgrade-status' is answered until the device has restarted; try again then."},

    {FOTA_CLIENT_NO_DAEMON, "fotad is not started, or ended during its start.",
     "Start fotad, as root, and try again."},
    {FOTA_CLIENT_NO_PERMISSION, "The queue is for root and its group.",
     "Try again as root, or as a member of the group that " FOTA_REQUEST_QUEUE " belongs to."},
    {FOTA_CLIENT_TIMEOUT, "The daemon is busy with a package, or was killed.",
     "Look at the state before you try again with a longer --timeout: the request may still be carried out."},
    {FOTA_CLIENT_NO_RESOURCES, "The user has as many queues as the system allows.",
     "Remove old queues fota_reply.* from /dev/mqueue, or raise the limit (ulimit -q)."},
    {FOTA_CLIENT_BAD_ARGUMENT, "A text has more than 254 bytes.", "Give a shorter one."},
    {FOTA_CLIENT_UNKNOWN_EVENT, "Daemon and client are of different versions.",
     "It is older than this program: update it, or do without."},
    {FOTA_CLIENT_NOT_YET, "A program that does not wait asked too early.",
     "Try again when the descriptor can be read; to send, a little later."},
};

constexpr event_row EVENTS[] = {
    {FOTA_MSG_GET_UPDATE_CHECK_TIME, "Show when an update was last looked for", ""},
    {FOTA_MSG_SET_UPDATE_CHECK_TIME, "Store when an update was last looked for", ""},
    {FOTA_MSG_GET_TGT_PKG_VERSION, "Show the version that the validated package brings",
     "fotactl versions"},
    {FOTA_MSG_CFG_GET_CURRENT_RECORD, "Show the configuration that was saved last", ""},
    {FOTA_MSG_CFG_SAVE_NEW_RECORD, "Save a configuration of the device", ""},
    {FOTA_MSG_FILE_OPS, "Make, write, read or remove a small file", ""},
};

constexpr auto O = code_kind::OUTCOME;
constexpr auto X = code_kind::EXIT_STATUS;

constexpr code_row ROWS[] = {
    {O, FOTA_STATUS_PENDING, "", "pending", "The package is valid; its installation has not ended yet.",
     "Install it with 'fotactl install', or give it up with 'fotactl abort'."},
    {O, FOTA_STATUS_SUCCESS, "", "success", "The installer has written the new firmware, and it started.", "Nothing."},
    {O, 250, "", "success, as the agent defines it", "The agent ended the session with a code of its own.", ASK_AGENT, 299},
    {O, 400, "", "agent failed", BY_AGENT, ASK_AGENT},
    {O, 401, "", "cancelled by the user", BY_AGENT, "Start over when the user wants it."},
    {O, 402, "", "package corrupt", "The installer found the package, or a file that it changes, damaged or not as the "
     "package expects.", "Get the package again; if it fails once more, have it made anew."},
    {O, 403, "", "package does not fit this device", "The package updates another version than the installed one.",
     "Get the package that updates the installed version."},
    {O, FOTA_STATUS_VALIDATION_FAILED, "", "package not valid", "The package is damaged, not signed for this device, or "
     "its path holds a blank.", "Get the package again; /var/log/debug_log says which check failed."},
    {O, 405, "", "package not acceptable", BY_AGENT, ASK_AGENT},
    {O, 406, "", "alternate download not authorised", BY_AGENT, ASK_AGENT},
    {O, 407, "", "alternate download timed out", BY_AGENT, ASK_AGENT},
    {O, 408, "", "not supported", "The package is of a kind that this installer cannot handle.",
     "Have the package made for this device."},
    {O, FOTA_STATUS_UNDEFINED_ERROR, "", "undefined error", "The installer met a fault of the device itself, a factory reset "
     "came in between, the boot fail-safe went back to the old firmware without a code, or the installation could not be "
     "started.",
     "Look at the reason in the record, and at /var/log/debug_log."},
    {O, FOTA_STATUS_UPDATE_FAILED, "", "update failed", "The installer failed, or left a number that is no code.",
     "Look at the reason in the record; try again with the device on its charger."},
    {O, 411, "", "bad download address", BY_AGENT, ASK_AGENT},
    {O, 412, "", "alternate download server not available", BY_AGENT, ASK_AGENT},
    {O, 450, "", "agent failed, as it defines it", BY_AGENT, ASK_AGENT, 499},
    {O, 500, "", "alternate download server failed", BY_AGENT, ASK_AGENT},
    {O, 501, "", "out of memory during the download", BY_AGENT, "Make room on the device and start over."},
    {O, 502, "", "out of memory", "The installer had too little memory or flash for this package.",
     "Make room on the device, restart it and start over."},
    {O, 503, "", "network failed during the download", BY_AGENT, "Start over when the network is back."},
    {O, 550, "", "download server failed, as it defines it", BY_AGENT, ASK_AGENT, 599},

    {X, 0, "fotactl", "done", "All went well.", "Nothing."},
    {X, 1, "fotactl", "refused by the daemon, or not possible here", "The daemon answered with a result code "
     "other than success.", "Read the message, which says what to do; 'fotactl explain' tells more of its code."},
    {X, 2, "fotactl", "wrong usage: nothing was sent", "An argument is missing or mistyped.", "See 'fotactl COMMAND --help'."},
    {X, 3, "fotactl", "daemon not reachable", "fotad is not running, is busy, or this user may not ask it.",
     "Read the message, which says which."},
    {X, 0, "fotapkg", "done", "All went well.", "Nothing."},
    {X, 1, "fotapkg", "failed, or the package is not good", "An input is missing or damaged, or made with other keys.",
     "Read the message."},
    {X, 2, "fotapkg", "wrong usage", "An argument is missing or mistyped.", "See 'fotapkg COMMAND --help'."},
    {X, 0, "fotasim", "updated; for exec: the command's own status", "All went well.", "Nothing."},
    {X, 1, "fotasim", "something unexpected happened", "A step was not answered as it should have been.",
     "Read the line of that step."},
    {X, 2, "fotasim", "wrong usage", "An argument is missing or mistyped.", "See 'fotasim COMMAND --help'."},
    {X, 3, "fotasim", "no sandbox on this machine", "The kernel allows this user no namespaces.",
     "Read the message; root always may."},
    {X, 10, "fotasim", "the installer failed, and that is recorded", "The play was told so, with --installer.", "Nothing."},
    {X, 11, "fotasim", "went back to the old firmware, and that is recorded", "The play was told so, with --revert.",
     "Nothing."},
    {X, 12, "fotasim", "package refused, and that is recorded", "The package does not fit the keys or the version.",
     "'fotapkg verify' says what is wrong with it."},
    {X, 13, "fotasim", "ended by a factory reset, and that is recorded", "The play was of that path.", "Nothing."},
    {X, 14, "fotasim", "installed, but the flash had no room for the outcome", "The play was told so, with full-flash=result: "
     "the record stays pending, nothing of the session is left.", "Nothing."},
    {X, 127, "fotasim", "not started", "The command, or the daemon, could not be started.", "Read the message."},
    {X, 0, "fotad", "serves requests in the background; later: ended as told to", "All went well.", "Nothing."},
    {X, 1, "fotad", "could not go to the background", "The system has no room for a further process.",
     "Free memory, and start it again."},
    {X, 255, "fotad", "ended during its start", "No message bus, no configuration, no settings service, updates disabled, "
     "no request queue, or no data directory.", "The last line of /var/log/debug_log says which; put it right."},
};
// clang-format on

constexpr const char* PREFIXES[] = {"FOTA_RC_", "FOTA_CLIENT_", "FOTA_MSG_"};

const kind_row& row_of(code_kind kind) {
    return *std::find_if(std::begin(KINDS), std::end(KINDS),
                         [kind](const kind_row& row) { return row.kind == kind; });
}

const code_row* find_outcome(int64_t number) {
    const auto found = std::find_if(std::begin(ROWS), std::end(ROWS), [number](const code_row& row) {
        return row.kind == code_kind::OUTCOME && number >= row.number && number <= row.last();
    });
    return found == std::end(ROWS) ? nullptr : found;
}

std::string hexadecimal(int64_t number) {
    char text[24];
    snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(number));
    return text;
}

int64_t signed_form(int64_t engine_code) {
    return static_cast<int32_t>(static_cast<uint32_t>(engine_code));
}

void add_named(code_kind kind, std::vector<code_entry>& entries) {
    for (const auto& [code, cause, action] : ADVICE) {
        if ((code < 0) != (kind == code_kind::CLIENT_ERROR)) continue;
        entries.push_back(
            {kind, code, code, fota_result_name(code), fota_result_meaning(code), cause, action});
    }
}

void add_rows(code_kind kind, std::vector<code_entry>& entries) {
    for (const code_row& row : ROWS) {
        if (row.kind == kind)
            entries.push_back({kind, row.number, row.last(), row.name, row.meaning, row.cause, row.action});
    }
}

std::vector<command_section>& sections() {
    static std::vector<command_section> known;
    return known;
}

// What an event asks for, its command says.
void add_events(std::vector<code_entry>& entries) {
    for (int event = 1; fota_event_name(event) != nullptr; ++event) {
        code_entry entry = {code_kind::EVENT, event, event, fota_event_name(event), "", "", ""};
        for (const event_row& row : EVENTS) {
            if (row.event != event) continue;
            entry.meaning = row.meaning;
            entry.action = row.action;
        }
        for (const command_section& section : sections()) {
            for (const command& command : section.commands) {
                if (command.event != event || command.run == nullptr) continue;
                if (entry.meaning.empty()) entry.meaning = command.help;
                entry.action += (entry.action.empty() ? "fotactl " : ", fotactl ") + full_name(command);
            }
        }
        entries.push_back(entry);
    }
}

void add_engine_errors(std::vector<code_entry>& entries) {
    for (const engine_error& error : engine_errors()) {
        const code_row* const outcome = find_outcome(error.fumo);
        entries.push_back({code_kind::ENGINE_ERROR, error.code, error.code, "",
                           std::string(error.text) + "; recorded as " + std::to_string(error.fumo) + ", " +
                               outcome->meaning,
                           outcome->cause, outcome->action});
    }
}

std::optional<int64_t> parse_number(std::string_view text) {
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    if (hex) text.remove_prefix(2);
    uint32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, hex ? 16 : 10);
    if (error != std::errc() || rest != end) return std::nullopt;
    return negative ? -int64_t{number} : int64_t{number};
}

bool is_name(const std::string& name, const std::string& text) {
    if (name.empty()) return false;
    if (strcasecmp(name.c_str(), text.c_str()) == 0) return true;
    return std::any_of(std::begin(PREFIXES), std::end(PREFIXES), [&](const char* prefix) {
        return name.starts_with(prefix) && strcasecmp(name.c_str() + strlen(prefix), text.c_str()) == 0;
    });
}

std::string number_text(const code_entry& entry) {
    switch (entry.kind) {
        case code_kind::RESULT:
            return hexadecimal(entry.first) + " (" + std::to_string(entry.first) + ")";
        case code_kind::ENGINE_ERROR:
            return hexadecimal(entry.first) + " (" + std::to_string(signed_form(entry.first)) + ")";
        default:
            break;
    }
    const std::string number = std::to_string(entry.first);
    return entry.last == entry.first ? number : number + " to " + std::to_string(entry.last);
}

}  // namespace

void describe_events(std::vector<command_section> commands) {
    sections() = std::move(commands);
}

const std::vector<code_entry>& all_codes() {
    static const std::vector<code_entry> codes = [] {
        std::vector<code_entry> entries;
        for (const kind_row& row : KINDS) {
            switch (row.kind) {
                case code_kind::RESULT:
                case code_kind::CLIENT_ERROR:
                    add_named(row.kind, entries);
                    break;
                case code_kind::EVENT:
                    add_events(entries);
                    break;
                case code_kind::ENGINE_ERROR:
                    add_engine_errors(entries);
                    break;
                default:
                    add_rows(row.kind, entries);
            }
        }
        return entries;
    }();
    return codes;
}

const char* code_kind_name(code_kind kind) {
    return row_of(kind).singular;
}

std::vector<code_entry> find_codes(const std::string& text) {
    const std::optional<int64_t> number = parse_number(text);
    std::vector<code_entry> found;
    for (const code_entry& entry : all_codes()) {
        const bool is_engine = entry.kind == code_kind::ENGINE_ERROR;
        const bool fits = number ? (*number >= entry.first && *number <= entry.last) ||
                                       (is_engine && *number == signed_form(entry.first))
                                 : is_name(entry.name, text);
        if (fits) found.push_back(entry);
    }
    return found;
}

std::string code_title(const code_entry& entry) {
    std::string title = std::string(row_of(entry.kind).singular) + " " + number_text(entry);
    if (entry.name.empty()) return title;
    return title + (entry.kind == code_kind::EXIT_STATUS ? " of " : ", ") + entry.name;
}

const char* outcome_meaning(uint32_t status) {
    const code_row* const row = find_outcome(status);
    return row == nullptr ? nullptr : row->meaning;
}

const char* result_action(int result) {
    for (const advice_row& row : ADVICE)
        if (row.code == result) return row.action;
    return nullptr;
}

std::string codes_page() {
    std::string page =
        "# Codes\n\n"
        "Numbers and names as they appear in answers, logs, records and files. `fotactl explain CODE` says "
        "the same of\n"
        "one of them; this page is the output of `fotactl explain --list`.\n";
    for (const kind_row& kind : KINDS) {
        page += std::string("\n## ") + kind.heading + "\n\n" + kind.introduction + "\n\n|";
        std::string line = "\n|";
        for (const char* column : kind.columns) {
            if (column == nullptr) continue;
            page += std::string(" ") + column + " |";
            line += "---|";
        }
        page += line + "\n";
        for (const code_entry& entry : all_codes()) {
            if (entry.kind != kind.kind) continue;
            const std::string cells[] = {number_text(entry), "`" + entry.name + "`", entry.meaning,
                                         entry.cause, entry.action};
            page += "|";
            for (size_t i = 0; i < std::size(cells); ++i) {
                if (kind.columns[i] != nullptr) page += " " + cells[i] + " |";
            }
            page += "\n";
        }
    }
    return page;
}
