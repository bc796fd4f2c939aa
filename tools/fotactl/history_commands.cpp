#include "history_commands.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>

#include "record_output.h"

namespace {

void add_id(CLI::App& app, options& options) {
    app.add_option("ID", options.number, "Id of the record, from 1")->required()->type_name("");
}

void add_index(CLI::App& app, options& options) {
    app.add_option("N", options.number, "Position in the list, 0 for the oldest record")
        ->required()
        ->type_name("");
}

void add_modification(CLI::App& app, options& options) {
    add_id(app, options);
    add_pkg_info(app, options);
    app.parse_complete_callback([&options] {
        if (options.edits.empty()) throw CLI::RequiredError("An option that says what to change");
    });
}

void add_time(CLI::App& app, options& options) {
    add_required(app, "TEXT", options.text, "Any text; MM-DD-YYYY-hh:mm:ss is usual", 0);
}

void add_configuration(CLI::App& app, options& options) {
    add_required(app, "--date", options.date, "When it was made; MM-DD-YYYY-hh:mm:ss is usual", 1, "TEXT");
    add_required(app, "--version", options.version, "Version of the configuration", 1, "TEXT");
    add_required(app, "--firmware", options.firmware, "Version of the device's firmware", 1, "TEXT");
}

// The ids in the list, the newest first.
std::vector<uint32_t> listed_ids(const fota_record_count& count) {
    std::vector<uint32_t> ids;
    const char* const end = count.list + strlen(count.list);
    uint32_t id = 0;
    for (auto next = std::from_chars(count.list, end, id); next.ec == std::errc();
         next = std::from_chars(next.ptr + (next.ptr < end), end, id)) {
        ids.push_back(id);
    }
    std::sort(ids.rbegin(), ids.rend());
    return ids;
}

answer run_history(const options& options) {
    fota_record_count count{};
    answer answer;
    answer.result = fota_client_get_record_count(&count, options.timeout_ms);
    if (answer.result != FOTA_RC_SUCCESS) return answer;
    answer.message = "The history is empty.";
    answer.data["records"] = nlohmann::ordered_json::array();
    for (const uint32_t id : listed_ids(count)) {
        fota_history_rec record{};
        const int result = fota_client_get_record_by_id(id, &record, options.timeout_ms);
        if (result == FOTA_RC_RECORD_NOT_FOUND) continue;  // a new one has taken its place meanwhile
        if (result != FOTA_RC_SUCCESS) return {result};
        answer.table.rows.push_back(record_cells(record));
        answer.data["records"].push_back(record_json(record));
    }
    answer.table.headings = record_headings();
    return answer;
}

answer run_history_show(const options& options) {
    fota_history_rec record{};
    const int result = fota_client_get_record_by_id(options.number, &record, options.timeout_ms);
    return record_answer(result, record);
}

answer run_history_index(const options& options) {
    fota_history_rec record{};
    const int result = fota_client_get_record_by_index(options.number, &record, options.timeout_ms);
    return record_answer(result, record);
}

answer run_history_count(const options& options) {
    fota_record_count count{};
    const int result = fota_client_get_record_count(&count, options.timeout_ms);
    return {.result = result, .message = std::to_string(count.count), .data = {{"count", count.count}}};
}

answer run_last_success(const options& options) {
    fota_history_rec record{};
    const int result = fota_client_get_last_success_rec(&record, options.timeout_ms);
    return record_answer(result, record, "No update has succeeded yet.");
}

answer run_modify(const options& options) {
    fota_history_rec record{};
    int result = fota_client_get_record_by_id(options.number, &record, options.timeout_ms);
    if (result != FOTA_RC_SUCCESS) return {result};
    for (const auto& edit : options.edits) edit(record.pkg_info);
    result = fota_client_modify_record_by_id(&record, options.timeout_ms);
    return record_answer(result, record);
}

answer run_check_time_get(const options& options) {
    char text[FOTA_TEXT_SIZE] = {};
    const int result = fota_client_get_update_check_time(text, options.timeout_ms);
    const std::string time = without_line_end(text);
    return {.result = result, .message = time, .data = {{"check_time", time}}};
}

answer run_check_time_set(const options& options) {
    return {fota_client_set_update_check_time(options.text.c_str(), options.timeout_ms),
            "The time of the update check is stored."};
}

answer run_config_show(const options& options) {
    fota_history_rec record{};
    const int result = fota_client_cfg_get_current_record(&record, options.timeout_ms);
    if (result != FOTA_RC_SUCCESS) return {result};
    return {.lines = {{"record", std::to_string(record.rec_id)},
                      {"date", record.update_date},
                      {"version", record.pkg_info.pkg_ver},
                      {"firmware", record.pkg_info.pkg_description}},
            .data = {{"record", record_json(record)}}};
}

answer run_config_save(const options& options) {
    return {fota_client_cfg_save_new_record(options.date.c_str(), options.version.c_str(),
                                            options.firmware.c_str(), options.timeout_ms),
            "The configuration is saved."};
}

// clang-format off
constexpr command COMMANDS[] = {
    {nullptr, "history", "List the history, the newest record first; an update that waits for its installation is not in it",
     "\nshow 3", FOTA_MSG_GET_NO_OF_RECORDS, add_nothing, run_history},
    {"history", "show", "Show the record with an id",
     "3", FOTA_MSG_GET_RECORD_BY_ID, add_id, run_history_show},
    {"history", "index", "Show the record at a position of the list, which counts ids from the oldest",
     "0", FOTA_MSG_GET_RECORD_BY_INDEX, add_index, run_history_index},
    {"history", "count", "Print the number of records in the list",
     "", FOTA_MSG_GET_NO_OF_RECORDS, add_nothing, run_history_count},
    {nullptr, "last-success", "Show the newest update that succeeded",
     "", FOTA_MSG_GET_LAST_SUCCESS_REC, add_nothing, run_last_success},
    {nullptr, "modify", "Change what a record says of its package",
     "3 --description \"Spring release\"", FOTA_MSG_MODIFY_RECORD_BY_ID, add_modification, run_modify},
    {nullptr, "check-time", "When an update was last looked for", ""},
    {"check-time", "get", "Print it; an empty line when it was never stored",
     "", FOTA_MSG_GET_UPDATE_CHECK_TIME, add_nothing, run_check_time_get},
    {"check-time", "set", "Store it",
     "11-25-2026-14:30:00", FOTA_MSG_SET_UPDATE_CHECK_TIME, add_time, run_check_time_set},
    {nullptr, "config", "The configuration of the device, as far as the history knows", ""},
    {"config", "show", "Show the one that was saved last",
     "", FOTA_MSG_CFG_GET_CURRENT_RECORD, add_nothing, run_config_show},
    {"config", "save", "Save a new one; the first is the factory configuration",
     "--date 11-25-2026-14:30:00 --version 7 --firmware 5.2.1", FOTA_MSG_CFG_SAVE_NEW_RECORD, add_configuration, run_config_save},
};
// clang-format on

}  // namespace

std::span<const command> history_commands() {
    return COMMANDS;
}
