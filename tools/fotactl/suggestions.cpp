#include "suggestions.h"

#include <algorithm>

#include "codes.h"
#include "common/state_files.h"
#include "device_state.h"
#include "tools/common/output.h"

namespace {

// Those in the history, the newest first, after the one that has the session.
std::vector<suggestion> agents() {
    std::vector<suggestion> found;
    const found_text owner = find_text(FOTA_SESSION_LOCK);
    if (!owner.text.empty()) found.push_back({owner.text, "has the update session"});
    const found_history history = find_history();
    for (auto record = history.records.rbegin(); record != history.records.rend(); ++record)
        found.push_back({std::string(field_text(record->pkg_info.agent_name)), "in the history"});
    return found;
}

std::vector<suggestion> records(bool by_position) {
    std::vector<suggestion> found;
    std::vector<fota_history_rec> all = find_history().records;
    if (by_position) {  // not in the list that is counted
        std::erase_if(all, [](const fota_history_rec& record) {
            return record.rec_type == FOTA_REC_FACTORY_CFG || record.status == FOTA_STATUS_PENDING;
        });
    }
    std::ranges::sort(all, {}, &fota_history_rec::rec_id);
    for (const fota_history_rec& record : all) {
        const uint32_t number = by_position ? static_cast<uint32_t>(found.size()) : record.rec_id;
        found.push_back({std::to_string(number), std::string(field_text(record.update_date)) + " " +
                                                     std::string(field_text(record.pkg_info.pkg_ver))});
    }
    return found;
}

// Numbers as far as people meet them: result codes and events have names.
std::vector<suggestion> codes(bool only_outcomes, const std::string& begun) {
    constexpr char PREFIX[] = "FOTA_";
    std::vector<suggestion> found;
    for (const code_entry& entry : all_codes()) {
        if (entry.kind == code_kind::OUTCOME) found.push_back({std::to_string(entry.first), entry.meaning});
        if (only_outcomes || entry.kind == code_kind::EXIT_STATUS || entry.name.empty()) continue;
        const size_t prefix = entry.name.find('_', sizeof PREFIX) + 1;
        found.push_back({begun.starts_with("FOTA") ? entry.name : entry.name.substr(prefix), entry.meaning});
    }
    return found;
}

}  // namespace

std::vector<suggestion> suggest_values(const std::string& name, const std::string& begun) {
    if (name == "agent") return agents();
    if (name == "id" || name == "n") return records(name == "n");
    if (name == "code" || name == "status") return codes(name == "status", begun);
    return {};
}
