#include "report.h"

#include <cerrno>

#include "codes.h"
#include "device_state.h"
#include "tools/common/json_line.h"

namespace {

constexpr char PREPARE_FIRST[] =
    "Take the session with 'fotactl lock' and validate a package first, both as this agent.";

struct particular_advice {
    fota_event event;
    fota_result_code code;
    const char* text;
};

// clang-format off
constexpr particular_advice PARTICULAR[] = {
    {FOTA_MSG_VALIDATE_UPDATE_PKG, FOTA_RC_FAILURE,
     "The package is damaged or not signed for this device. The session has ended: get the package again and start "
     "over with 'fotactl lock' or 'fotactl update'; /var/log/debug_log says which check failed."},
    {FOTA_MSG_VALIDATE_UPDATE_PKG, FOTA_RC_PKG_NOT_FOUND,
     "The session has ended: check the path, which is one on the device, and start over with 'fotactl lock' or 'fotactl update'."},
    {FOTA_MSG_VALIDATE_UPDATE_PKG, FOTA_RC_PKG_NOT_REGULAR,
     "The session has ended: check the path, which is one on the device, and start over with 'fotactl lock' or 'fotactl update'."},
    {FOTA_MSG_ABORT_CURRENT_SESS, FOTA_RC_FAILURE,
     "The session has ended all the same, but its outcome is not in the history."},
    {FOTA_MSG_ABORT_CURRENT_SESS, FOTA_RC_INVALID_PARAM, PREPARE_FIRST},
    {FOTA_MSG_GET_CURRENT_SESS_RECORD, FOTA_RC_INVALID_PARAM, PREPARE_FIRST},
    {FOTA_MSG_INCR_INSTALL_DEFER_COUNT, FOTA_RC_INVALID_PARAM, PREPARE_FIRST},
    {FOTA_MSG_GET_SRC_PKG_VERSION, FOTA_RC_INVALID_PARAM, PREPARE_FIRST},
    {FOTA_MSG_GET_SRC_PKG_VERSION, FOTA_RC_FILE_NOT_FOUND, "Validate a package first, with 'fotactl validate'."},

    {FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, FOTA_RC_FAILURE,
     "The bundle is not a zip archive, or there is no room for it; /var/log/debug_log says what failed."},
    {FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, FOTA_RC_PKG_NOT_FOUND, "Check the path, which is one on the device."},
    {FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, FOTA_RC_PKG_INVALID,
     "The bundle lacks a piece or is not signed for this device, and has been removed: get it again, and upload it "
     "once more; /var/log/debug_log says which check failed."},
    {FOTA_MSG_SIDELOAD_START_INSTALLATION, FOTA_RC_INVALID_PARAM,
     "Another agent has the session: ask it to finish, or give its name; "
     "'fotactl file read /opt/qast/data/fota/session' shows it."},
    {FOTA_MSG_SIDELOAD_START_INSTALLATION, FOTA_RC_PKG_NOT_FOUND,
     "Check the path, which is one on the device. A package that was prepared is gone: upload it and prepare it "
     "once more."},
    {FOTA_MSG_SIDELOAD_START_INSTALLATION, FOTA_RC_PKG_VALIDATION_FAILED,
     "The package is damaged or not signed for this device, and has been removed: get it again, upload it and "
     "prepare it once more; /var/log/debug_log says which check failed."},
    {FOTA_MSG_SIDELOAD_START_INSTALLATION, FOTA_RC_SRC_VERSION_MISMATCH,
     "The package has been removed: get the one that updates the installed version."},
    {FOTA_MSG_SIDELOAD_START_INSTALLATION, FOTA_RC_INSTALL_START_FAILED,
     "The session has ended and the package has been removed; /var/log/debug_log says what failed."},
    {FOTA_MSG_SUA_UPATE_START, FOTA_RC_INSTALL_START_FAILED,
     "The session of SUA has ended; /var/log/debug_log says what failed."},

    {FOTA_MSG_GET_RECORD_BY_ID, FOTA_RC_INVALID_PARAM, "Ids begin at 1; 'fotactl history' shows which there are."},
    {FOTA_MSG_MODIFY_RECORD_BY_ID, FOTA_RC_INVALID_PARAM, "Ids begin at 1; 'fotactl history' shows which there are."},
    {FOTA_MSG_GET_RECORD_BY_INDEX, FOTA_RC_FAILURE, "The history is empty."},
    {FOTA_MSG_GET_RECORD_BY_INDEX, FOTA_RC_FILE_NOT_FOUND, "The history is empty."},
    {FOTA_MSG_GET_RECORD_BY_INDEX, FOTA_RC_RECORD_NOT_FOUND,
     "Positions count ids from the oldest, at 0; 'fotactl history' shows which ids there are, and 'fotactl history "
     "show' finds a record by its id."},
    {FOTA_MSG_CFG_GET_CURRENT_RECORD, FOTA_RC_RECORD_NOT_FOUND, "Save one with 'fotactl config save'."},

    {FOTA_MSG_FACTORY_RESET, FOTA_RC_FAILURE,
     "An installation has been started: try again when the device is back from it."},
    {FOTA_MSG_FILE_OPS, FOTA_RC_INVALID_PARAM, "Check the path and the text."},
    {FOTA_MSG_FILE_OPS, FOTA_RC_FILE_NOT_FOUND, "Check that the path, its folder and the file system allow it."},
    {FOTA_MSG_FILE_OPS, FOTA_RC_FILE_CREATE_FAILED, "Check that the path, its folder and the file system allow it."},
    {FOTA_MSG_FILE_OPS, FOTA_RC_FILE_WRITE_FAILED, "Check that the path, its folder and the file system allow it."},
};
// clang-format on

// What a result other than success means for the user.
struct verdict {
    exit_code exit;
    std::string advice;
};

verdict verdict_on(const command& command, const options& options, int result, int error_number) {
    switch (result) {
        case FOTA_RC_SUCCESS:
            return {EXIT_DONE, ""};
        case FOTA_CLIENT_NO_DAEMON:
        case FOTA_CLIENT_NO_PERMISSION:
            return {EXIT_UNREACHABLE, result_action(result)};
        case FOTA_CLIENT_TIMEOUT:
            return {EXIT_UNREACHABLE,
                    "It was given " + duration_text(static_cast<uint32_t>(options.timeout_ms / 1000)) +
                        " and may be busy with another request, and still carry this one out: look at the "
                        "state before you try again with a longer --timeout. If fotad is not running, start "
                        "it."};
        case FOTA_CLIENT_NO_RESOURCES:
            return {EXIT_UNREACHABLE,
                    std::string("The system says: ") + strerror(error_number) + ". " + result_action(result)};
        case FOTA_CLIENT_BAD_ARGUMENT:
            return {EXIT_USAGE, "See 'fotactl " + full_name(command) + " --help'."};
        case FOTA_CLIENT_UNKNOWN_EVENT:
            return {EXIT_REFUSED, result_action(result)};
        default:
            return {EXIT_REFUSED, advice_on(command.event, result)};
    }
}

verdict verdict_on(const command& command, const options& options, const answer& answer, int error_number) {
    if (!answer.problem.empty())
        return {answer.result == FOTA_CLIENT_BAD_ARGUMENT ? EXIT_USAGE : EXIT_REFUSED, answer.advice};
    verdict verdict = verdict_on(command, options, answer.result, error_number);
    if (!answer.advice.empty()) verdict.advice = answer.advice;
    return verdict;
}

std::string meaning_of(int result) {
    const char* const meaning = fota_result_meaning(result);
    return meaning == nullptr ? "a result that this program does not know" : meaning;
}

std::string name_of(int result) {
    const char* const name = fota_result_name(result);
    return name == nullptr ? "no name" : name;
}

void print_text(const answer& answer) {
    if (answer.is_printed) return;
    // Neither message nor lines: the empty first line of a file.
    if (answer.result == FOTA_RC_SUCCESS && answer.problem.empty() && answer.table.rows.empty() &&
        (answer.lines.empty() || !answer.message.empty())) {
        printf("%s\n", escaped(answer.message).c_str());
    }
    print_lines(stdout, answer.lines);
    print_table(stdout, answer.table);
}

void print_json(const command& command, const answer& answer, const std::string& advice) {
    using nlohmann::ordered_json;
    ordered_json line = {{"command", full_name(command)}};
    line.update(
        answer.problem.empty()
            ? result_json(answer.result)
            : ordered_json{{"ok", false}, {"code", nullptr}, {"name", nullptr}, {"meaning", answer.problem}});
    if (!advice.empty()) line["advice"] = advice;
    line["data"] = answer.data.is_null() ? ordered_json::object() : answer.data;
    print_json_line(line);
}

}  // namespace

std::string advice_on(fota_event event, int result) {
    if (result == FOTA_RC_LOCK_NOT_AVAILABLE && is_session_of_nobody())
        return std::string("The session has no owner: ") + END_SESSION_OF_NOBODY + ".";
    for (const particular_advice& row : PARTICULAR) {
        if (row.event == event && row.code == fota_result_code(result)) return row.text;
    }
    const char* const action = result_action(result);
    return action == nullptr ? result_action(FOTA_RC_FAILURE) : action;
}

nlohmann::ordered_json result_json(int result) {
    return {{"ok", result == FOTA_RC_SUCCESS},
            {"code", result},
            {"name", name_of(result)},
            {"meaning", meaning_of(result)}};
}

exit_code report(const command& command, const options& options, const answer& answer, int error_number) {
    const verdict verdict = verdict_on(command, options, answer, error_number);
    options.json ? print_json(command, answer, verdict.advice) : print_text(answer);
    const bool is_written = fflush(stdout) == 0 && ferror(stdout) == 0;
    const int write_error = errno;
    const std::string name = full_name(command), meaning = meaning_of(answer.result);
    if (!answer.problem.empty()) {
        fprintf(stderr, "fotactl: %s: %s. %s\n", name.c_str(), escaped(answer.problem).c_str(),
                escaped(verdict.advice).c_str());
    } else if (answer.result < 0) {
        fprintf(stderr, "fotactl: %s: %s. %s\n", name.c_str(), meaning.c_str(), verdict.advice.c_str());
    } else if (answer.result != FOTA_RC_SUCCESS) {
        fprintf(stderr, "fotactl: %s refused: %s (%s, 0x%X). %s\n", name.c_str(), meaning.c_str(),
                name_of(answer.result).c_str(), static_cast<unsigned>(answer.result),
                escaped(verdict.advice).c_str());
    } else if (!is_written) {
        fprintf(stderr, "fotactl: %s is done, but its output could not be written: %s\n", name.c_str(),
                strerror(write_error));
        return EXIT_REFUSED;
    }
    return verdict.exit;
}
