#include "explain_commands.h"

#include <CLI/CLI.hpp>

#include "codes.h"

namespace {

void add_code(CLI::App& app, options& options) {
    CLI::Option* const list = app.add_flag("--list", options.list, "Print all codes, as a page in Markdown");
    app.add_option("CODE", options.text,
                   "A number, such as 404, 0xA03EC or -2147483635, or a name, such as NO_SESSION")
        ->excludes(list)
        ->type_name("");
    app.parse_complete_callback([&options] {
        if (options.text.empty() && !options.list) throw CLI::RequiredError("CODE, or --list,");
    });
}

std::vector<output_line> code_lines(const code_entry& entry) {
    if (entry.kind == code_kind::EVENT) return {{"meaning", entry.meaning}, {"by hand", entry.action}};
    std::vector<output_line> lines = {{"meaning", entry.meaning}};
    if (!entry.cause.empty()) lines.push_back({"usual cause", entry.cause});
    lines.push_back({"what to do", entry.action});
    return lines;
}

nlohmann::ordered_json code_json(const code_entry& entry) {
    const auto text_or_null = [](const std::string& text) {
        return text.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(text);
    };
    return {{"kind", code_kind_name(entry.kind)},
            {"number", entry.first},
            {"last_number", entry.last},
            {"name", text_or_null(entry.name)},
            {"meaning", entry.meaning},
            {"cause", text_or_null(entry.cause)},
            {"action", entry.action}};
}

answer run_explain(const options& options) {
    const std::vector<code_entry> found = options.list ? all_codes() : find_codes(options.text);
    if (found.empty()) {
        return {
            .problem = "nothing is called " + options.text,
            .advice =
                "There are result codes (0xA03EC, NO_SESSION), client errors (-3, TIMEOUT), events (19, "
                "VALIDATE_UPDATE_PKG), FUMO codes (404), installer engine errors (-2147483635, 0x8000000D) "
                "and exit statuses (3); 'fotactl explain --list' shows all."};
    }
    answer answer;
    answer.is_printed = true;
    answer.data["codes"] = nlohmann::ordered_json::array();
    for (const code_entry& entry : found) answer.data["codes"].push_back(code_json(entry));
    if (options.json) return answer;
    if (options.list) {
        fputs(codes_page().c_str(), stdout);
        return answer;
    }
    for (const code_entry& entry : found) {
        printf("%s%s\n", &entry == found.data() ? "" : "\n", code_title(entry).c_str());
        print_lines(stdout, code_lines(entry));
    }
    return answer;
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "explain", "Say what a code means, why one usually meets it and what to do about it",
     "404\n0xA03EC\nNO_SESSION", {}, add_code, run_explain},
};
// clang-format on

}  // namespace

std::span<const command> explain_commands() {
    return COMMANDS;
}
