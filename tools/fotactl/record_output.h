// A history record in words.
#pragma once

#include <nlohmann/json.hpp>

#include <vector>

#include "command.h"
#include "fota/fota_client.h"
#include "tools/common/output.h"

// What became of the update, in words.
[[nodiscard]] const char* outcome_text(const fota_history_rec& record);

// Every field, numbers with their meaning.
[[nodiscard]] std::vector<output_line> record_lines(const fota_history_rec& record);

// The same for scripts.
[[nodiscard]] nlohmann::ordered_json record_json(const fota_history_rec& record);

// The same as a row of a table, in short.
[[nodiscard]] std::vector<std::string> record_headings();
[[nodiscard]] std::vector<output_cell> record_cells(const fota_history_rec& record);

// 0 none started, 1 installation started, 2 device reset for a full-image installation.
[[nodiscard]] const char* upgrade_status_text(int32_t status);

// All fields of a record, in data["record"]; `message_for_none`, and null there, when its id is 0.
[[nodiscard]] answer record_answer(int result, const fota_history_rec& record,
                                   const std::string& message_for_none = {});
