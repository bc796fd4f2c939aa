#include "support/device_files.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "tools/play/sandbox.h"

namespace fs = std::filesystem;

void put_file(const std::string& path, std::string_view content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    ASSERT_TRUE(out.good()) << path;
}

std::string get_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "(none)";
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

bool exists(const std::string& path) {
    return fs::symlink_status(path).type() != fs::file_type::not_found;
}

std::string list_folder(const std::string& path) {
    std::set<std::string> names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(path, none)) {
        names.insert(entry.path().filename().string() + (entry.is_directory() ? "/" : ""));
    }
    std::string list;
    for (const std::string& name : names) list += (list.empty() ? "" : " ") + name;
    return list;
}

void sh(const std::string& command) {
    const std::string prefix =
        "set -e; PATH=" + sandbox_program_folder() + ":$PATH; exec >>/opt/sh.log 2>&1; ";
    ASSERT_EQ(system((prefix + command).c_str()), 0) << command << "\n" << get_file("/opt/sh.log");
}

void wipe_device() {
    for (const char* root : {"/opt", "/tmp", "/run/vexa", "/dev/sideload_tmp"}) {
        std::error_code none;
        for (const auto& entry : fs::directory_iterator(root, none)) fs::remove_all(entry.path(), none);
    }
    fs::create_directories(FOTA_DATA_DIR);
    fs::create_directories("/opt/qast/log/AB_failsafe");
}

std::mt19937 random_numbers(unsigned* seed) {
    const char* const given = std::getenv("FOTA_SEED");
    *seed = given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
    return std::mt19937(*seed);
}

fota_history_rec make_record(uint32_t id, uint32_t type, uint32_t status, const char* agent) {
    fota_history_rec record = {};
    record.rec_id = id;
    record.rec_type = type;
    record.status = status;
    strncpy(record.pkg_info.agent_name, agent, sizeof record.pkg_info.agent_name - 1);
    return record;
}

void put_history(const std::vector<fota_history_rec>& records) {
    std::vector<fota_history_rec> slots(20);
    std::copy(records.begin(), records.end(), slots.begin());
    put_file(FOTA_HISTORY_DB, {reinterpret_cast<const char*>(slots.data()), slots.size() * sizeof slots[0]});
}

fota_history_rec stored_record(uint32_t id) {
    const std::string content = exists(FOTA_HISTORY_DB) ? get_file(FOTA_HISTORY_DB) : "";
    EXPECT_EQ(content.size() % sizeof(fota_history_rec), 0u) << "history.bin is torn";
    for (size_t at = 0; at + sizeof(fota_history_rec) <= content.size(); at += sizeof(fota_history_rec)) {
        fota_history_rec record;
        memcpy(&record, content.data() + at, sizeof record);
        if (record.rec_id == id) return record;
    }
    return {};
}

fota_event_msg make_request(int32_t event, std::string_view agent) {
    fota_event_msg msg = {};
    msg.event = event;
    msg.result = 0x5EED;
    memcpy(msg.payload.agent_id, agent.data(), agent.size());
    return msg;
}
