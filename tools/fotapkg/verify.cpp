#include "verify.h"

#include <cstdio>
#include <string>

#include "fota/fota_client.h"
#include "tools/common/files.h"
#include "tools/common/json_line.h"

namespace fs = std::filesystem;

namespace {

std::string name_of(fota_rc code) {
    return fota_result_name(static_cast<int>(code));
}

std::string code_text(fota_rc code) {
    char number[16];
    snprintf(number, sizeof number, "0x%X", code);
    return std::string(number) + " (" + name_of(code) + ")";
}

void show_result(const check_result& result) {
    show_step(result.name, (result.ok() ? "ok: " : "FAILED: ") + result.text);
    for (const output_line& note : result.notes) show_step(note.name, note.value);
}

json results_json(const check_report& report) {
    json results = json::array();
    for (const check_result& result : report.results) {
        json notes = json::array();
        for (const output_line& note : result.notes)
            notes.push_back((note.name.empty() ? "" : note.name + " ") + note.value);
        results.push_back({{"name", result.name},
                           {"ok", result.ok()},
                           {"code", result.code},
                           {"text", result.text},
                           {"notes", notes}});
    }
    return results;
}

}  // namespace

bool verify(const fs::path& file, check_options options, bool as_json) {
    if (!as_json) options.on_result = show_result;
    const check_report report = check_package_file(file, LIBRARY_READER, options);
    const fota_rc code = report.results.back().code;
    if (as_json) {
        print_json_line({{"file", file.string()},
                         {"kind", report.is_bundle ? "bundle" : "package"},
                         {"good", report.good()},
                         {"code", code},
                         {"name", name_of(code)},
                         {"answer", report.answer},
                         {"answer_name", name_of(report.answer)},
                         {"checks", results_json(report)}});
        return report.good();
    }
    std::string verdict = "good";
    if (!report.good()) verdict = "refused with " + code_text(code);
    if (code != report.answer) verdict += "; the client is told " + code_text(report.answer);
    show_step(report.is_bundle ? "bundle" : "package", verdict);
    return report.good();
}
