#include "verify.h"

#include <cstdio>
#include <string>

#include "fota_client.h"
#include "package_checks.h"
#include "support.h"

namespace fs = std::filesystem;

namespace {

std::string code_text(fota_rc code) {
    char text[16];
    snprintf(text, sizeof text, "0x%X", code);
    return std::string(text) + " (" + fota_result_name(static_cast<int>(code)) + ")";
}

void show_result(const check_result& result) {
    show_step(result.name, (result.ok() ? "ok: " : "FAILED: ") + result.text);
    for (const output_line& note : result.notes) show_step(note.name, note.value);
}

}  // namespace

bool verify(const fs::path& file, const fs::path& keys, bool is_bundle) {
    const check_report report = check_package_file(file, {keys, is_bundle, show_result});
    show_step(report.is_bundle ? "bundle" : "package",
              report.good() ? "good" : "refused with " + code_text(report.results.back().code));
    return report.good();
}
