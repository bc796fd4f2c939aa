#include "faults.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "mishaps.h"
#include "play.h"
#include "tools/common/output.h"

namespace {

constexpr char RESET_PATH[] = "factory-reset";

// False: the text is not what the fault takes.
using apply_fault = bool (*)(const std::string& text, play_options& options);

// "CODE" or "CODE:REASON".
template <typename Code>
bool read_code(const std::string& text, std::optional<Code>& code, std::string& reason) {
    const size_t colon = text.find(':');
    const char* const end = text.data() + std::min(colon, text.size());
    Code value = 0;
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || rest != end || code) return false;
    code = value;
    if (colon != std::string::npos) reason = text.substr(colon + 1);
    return true;
}

bool fail_installer(const std::string& text, play_options& options) {
    std::optional<int32_t> code;
    if (options.installer.code || !read_code(text, code, options.installer.reason)) return false;
    options.installer.code = *code;
    return true;
}

bool fail_boot(const std::string& text, play_options& options) {
    return read_code(text, options.installer.revert_code, options.installer.reason);
}

bool fail_configuration(const std::string& text, play_options& options) {
    if (text != "linux" && text != "modem") return false;
    (text == "linux" ? options.installer.linux_pri : options.installer.modem_pri) = configuration::FAILED;
    return true;
}

bool leave_out_manager(const std::string& text, play_options& options) {
    return text.empty() && (options.no_state_manager = true);
}

struct fault {
    const char* name;
    const char* argument;
    const char* help;
    apply_fault apply;  // null: its stages are mishaps
    const char* example;
    play_outcome outcome;
    uint32_t status;
};

// clang-format off
constexpr fault FAULTS[] = {
    {"installer",  "CODE[:REASON]", "the installer fails with this engine error or FUMO code",
     fail_installer, "installer=-2147483635", PLAY_FAILED, 402},
    {"pri",        "linux|modem",   "the firmware is installed, that configuration is not",
     fail_configuration, "pri=linux,pri=modem", PLAY_UPDATED, 200},
    {"failsafe",   "CODE[:REASON]", "the new firmware does not pass the boot check, the device goes back",
     fail_boot, "failsafe=410:modem does not start", PLAY_REVERTED, 410},
    {"no-dsm",     "",              "there is no device state manager, telinit has to do",
     leave_out_manager, "no-dsm", PLAY_UPDATED, 200},
    {"power-cut",  "STAGE",         "everything on the device is killed at that stage, and the device boots again",
     nullptr, nullptr, PLAY_UPDATED, 0},
    {"full-flash", "STAGE",         "the flash has no room for what comes at that stage",
     nullptr, nullptr, PLAY_UPDATED, 0},
};
// clang-format on

std::string list_of(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

std::vector<std::string> stages_of(const std::string& fault, const std::string& path) {
    std::vector<std::string> stages;
    for (const mishap& m : all_mishaps()) {
        if (fault == m.fault && is_on_path(m, path)) stages.emplace_back(m.stage);
    }
    return stages;
}

void add_mishap(const std::string& name, const std::string& stage, play_options& options) {
    for (const mishap& m : all_mishaps()) {
        if (name != m.fault || stage != m.stage || !is_on_path(m, options.path)) continue;
        options.mishaps.push_back(&m);
        return;
    }
    const std::vector<std::string> stages = stages_of(name, options.path);
    throw std::runtime_error(name + " has no stage '" + escaped(stage) + "' with --path " + options.path +
                             "; " + (stages.empty() ? "there is none" : "its stages are " + list_of(stages)));
}

void apply_one(const std::string& text, play_options& options) {
    const size_t equals = text.find('=');
    const std::string name = text.substr(0, equals);
    const std::string argument = equals == std::string::npos ? "" : text.substr(equals + 1);
    const auto* const found = std::ranges::find_if(FAULTS, [&](const fault& f) { return name == f.name; });
    if (found == std::end(FAULTS)) {
        std::vector<std::string> names;
        for (const fault& f : FAULTS) names.emplace_back(f.name);
        throw std::runtime_error("there is no fault '" + escaped(name) + "'; the faults are " +
                                 list_of(names));
    }
    if (found->apply == nullptr) return add_mishap(name, argument, options);
    if (options.path == RESET_PATH) {
        throw std::runtime_error(name + " has no meaning with --path " + RESET_PATH +
                                 ", where nothing is installed");
    }
    if (!found->apply(argument, options)) {
        const std::string form = name + (*found->argument != '\0' ? std::string("=") + found->argument : "");
        throw std::runtime_error("'" + escaped(text) + "' is not of the form " + form +
                                 ", or is there twice");
    }
}

}  // namespace

void faults_apply(const std::string& list, play_options& options) {
    std::istringstream faults(list);
    for (std::string text; std::getline(faults, text, ',');) apply_one(text, options);
    if (options.installer.code && options.installer.revert_code) {
        throw std::runtime_error(
            "the boot check comes after an installation; it cannot fail when the installer does");
    }
    options.faults = escaped(list);
}

std::string faults_text() {
    std::string text = "Faults:\n";
    const auto add_line = [&](std::string name, const std::string& help) {
        name.resize(26, ' ');
        text += "  " + name + help + "\n";
    };
    for (const fault& f : FAULTS) {
        add_line(f.name + (*f.argument != '\0' ? std::string("=") + f.argument : ""), f.help);
    }
    for (const fault& f : FAULTS) {
        if (f.apply != nullptr) continue;
        text += std::string("Stages of ") + f.name + ":\n";
        for (const std::string& path : play_paths()) {
            const std::vector<std::string> stages = stages_of(f.name, path);
            if (!stages.empty()) add_line("--path " + path, list_of(stages));
        }
    }
    return text;
}

std::vector<std::string> faults_after(const std::string& begun) {
    const std::string before = begun.substr(0, begun.rfind(',') + 1);
    std::vector<std::string> lists;
    for (const std::string& path : play_paths()) {
        for (const fault_case& known : fault_cases(path)) {
            lists.push_back(before + known.list.substr(0, known.list.find(':')));
        }
    }
    return lists;
}

std::vector<fault_case> fault_cases(const std::string& path) {
    std::vector<fault_case> cases;
    const bool installs = path != RESET_PATH;
    for (const fault& f : FAULTS) {
        if (f.example != nullptr && installs) cases.push_back({f.example, f.outcome, f.status});
    }
    for (const mishap& m : all_mishaps()) {
        if (!is_on_path(m, path)) continue;
        fault_case played = {m.fault + std::string("=") + m.stage, m.outcome, m.status};
        if (m.outcome == PLAY_UPDATED) {
            played.outcome = installs ? PLAY_UPDATED : PLAY_RESET;
            played.status = installs ? FOTA_STATUS_SUCCESS : FOTA_STATUS_UNDEFINED_ERROR;
        }
        cases.push_back(played);
    }
    return cases;
}
