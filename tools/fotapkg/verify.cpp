#include "verify.h"

#include <cstdio>
#include <string>

#include "core/config.h"
#include "facts.h"
#include "fota/fota_client.h"
#include "tools/common/steps.h"
#include "tools/packages/size_limit.h"

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

json result_json(const check_result& result) {
    json notes = json::array();
    for (const output_line& note : result.notes)
        notes.push_back((note.name.empty() ? "" : note.name + " ") + note.value);
    return {{"name", result.name},
            {"ok", result.ok()},
            {"code", result.code},
            {"text", result.text},
            {"notes", notes}};
}

}  // namespace

bool verify(const fs::path& file, check_options options, json& facts) {
    facts = {{"file", file.string()},  {"kind", nullptr},  {"good", nullptr},
             {"code", nullptr},        {"name", nullptr},  {"answer", nullptr},
             {"answer_name", nullptr}, {"limit", nullptr}, {"checks", json::array()}};
    options.on_result = [&facts](const check_result& result) {
        show_result(result);
        facts["checks"].push_back(result_json(result));
    };
    const check_report report = check_package_file(file, LIBRARY_READER, options);
    const fota_rc code = report.results.back().code;
    facts["kind"] = report.is_bundle ? "bundle" : "package";
    facts["good"] = report.good();
    facts["code"] = code;
    facts["name"] = name_of(code);
    facts["answer"] = report.answer;
    facts["answer_name"] = name_of(report.answer);
    const uint64_t limit = options.limit.value_or(FOTA_DEFAULT_PKG_SIZE);
    facts["limit"] = limit_facts(report.package_size, limit, report.is_bundle);
    const bool is_judged = options.limit && !report.is_bundle;
    if (report.good() && !is_judged)
        show_step("size", judge_size(*report.package_size, limit, report.is_bundle).text);
    std::string verdict = "good";
    if (!report.good()) verdict = "refused with " + code_text(code);
    if (code != report.answer) verdict += "; the client is told " + code_text(report.answer);
    show_step(report.is_bundle ? "bundle" : "package", verdict);
    return report.good();
}
