#include "record_output.h"

#include "codes.h"
#include "tools/common/times.h"

namespace {

const char* type_text(uint32_t rec_type) {
    switch (rec_type) {
        case FOTA_REC_UPDATE:
            return "update";
        case FOTA_REC_FACTORY_CFG:
            return "configuration";
        case FOTA_REC_REVERT:
            return "return to the previous firmware";
        default:
            return "unknown";
    }
}

std::string status_text(const fota_history_rec& record) {
    std::string number = std::to_string(record.status);
    if (record.reason[0] == '\0') return number;
    return number + " (" + std::string(field_text(record.reason)) + ")";
}

std::string pri_text(uint32_t result) {
    switch (result) {
        case 0:
            return "none";
        case 200:
            return "200 (success)";
        case 410:
            return "410 (failed)";
        default:
            return std::to_string(result);
    }
}

}  // namespace

const char* outcome_text(const fota_history_rec& record) {
    if (record.rec_type == FOTA_REC_FACTORY_CFG) return "none, it is not an update";
    const char* const meaning = outcome_meaning(record.status);
    return meaning == nullptr ? "failed with another code" : meaning;
}

std::vector<output_line> record_lines(const fota_history_rec& record) {
    const fota_pkg_info& info = record.pkg_info;
    const auto text = [](const auto& field) { return std::string(field_text(field)); };
    return {
        {"record", std::to_string(record.rec_id)},
        {"type", std::to_string(record.rec_type) + " (" + type_text(record.rec_type) + ")"},
        {"outcome", outcome_text(record)},
        {"status", status_text(record)},
        {"date", text(record.update_date)},
        {"agent", text(info.agent_name)},
        {"package", text(info.pkg_name)},
        {"version", text(info.pkg_ver)},
        {"description", text(info.pkg_description)},
        {"method", text(info.update_method)},
        {"manufacturer", text(info.manufacturer)},
        {"size", size_text(info.pkg_size)},
        {"estimated time", duration_text(info.est_update_time)},
        {"deferred", std::to_string(record.install_defer_count) + " times"},
        {"Linux PRI", pri_text(record.linux_pri_result)},
        {"modem PRI", pri_text(record.modem_pri_result)},
        {"agent's number", std::to_string(info.pkg_info_word)},
        {"agent's text 1", text(info.aux_text1)},
        {"agent's text 2", text(info.aux_text2)},
    };
}

nlohmann::ordered_json record_json(const fota_history_rec& record) {
    const fota_pkg_info& info = record.pkg_info;
    const std::string date = rfc3339_date(std::string(field_text(record.update_date)));
    return {
        {"id", record.rec_id},
        {"type", record.rec_type},
        {"type_meaning", type_text(record.rec_type)},
        {"status", record.status},
        {"status_meaning", outcome_text(record)},
        {"reason", field_text(record.reason)},
        {"date", field_text(record.update_date)},
        {"date_rfc3339", date.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(date)},
        {"agent", field_text(info.agent_name)},
        {"package", field_text(info.pkg_name)},
        {"version", field_text(info.pkg_ver)},
        {"description", field_text(info.pkg_description)},
        {"method", field_text(info.update_method)},
        {"manufacturer", field_text(info.manufacturer)},
        {"size_bytes", info.pkg_size},
        {"estimated_secs", info.est_update_time},
        {"deferred", record.install_defer_count},
        {"linux_pri_result", record.linux_pri_result},
        {"modem_pri_result", record.modem_pri_result},
        {"agent_number", info.pkg_info_word},
        {"agent_text_1", field_text(info.aux_text1)},
        {"agent_text_2", field_text(info.aux_text2)},
    };
}

std::vector<std::string> record_headings() {
    return {"ID", "DATE", "AGENT", "VERSION", "DEFERRED", "CODE", "MEANING", "REASON"};
}

std::vector<output_cell> record_cells(const fota_history_rec& record) {
    const bool is_configuration = record.rec_type == FOTA_REC_FACTORY_CFG;
    constexpr uint32_t SUCCESS = 200;
    const look style = is_configuration || record.status == FOTA_STATUS_PENDING ? look::PLAIN
                       : record.status == SUCCESS                               ? look::GOOD
                                                                                : look::BAD;
    return {std::to_string(record.rec_id),
            std::string(field_text(record.update_date)),
            std::string(field_text(record.pkg_info.agent_name)),
            std::string(field_text(record.pkg_info.pkg_ver)),
            std::to_string(record.install_defer_count),
            is_configuration ? "" : std::to_string(record.status),
            {is_configuration ? type_text(record.rec_type) : outcome_text(record), style},
            std::string(field_text(record.reason))};
}

const char* upgrade_status_text(int32_t status) {
    switch (status) {
        case 0:
            return "no installation has been started";
        case 1:
            return "an installation has been started";
        case 2:
            return "the full-image installation resets the device";
        default:
            return "unknown";
    }
}

answer record_answer(int result, const fota_history_rec& record, const std::string& message_for_none) {
    if (result != FOTA_RC_SUCCESS) return {result};
    if (record.rec_id == 0) return {.message = message_for_none, .data = {{"record", nullptr}}};
    return {.lines = record_lines(record), .data = {{"record", record_json(record)}}};
}
