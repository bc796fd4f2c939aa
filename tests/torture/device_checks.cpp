#include "torture/device_checks.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "fota/fota_client.h"
#include "history/history_db.h"
#include "support/device_files.h"
#include "tools/play/agents.h"
#include "tools/play/device.h"

namespace fs = std::filesystem;

namespace {

constexpr int TIMEOUT_MS = 10000;
constexpr uint32_t OLD_RECORDS = 3;

fota_history_rec old_record(uint32_t id) {
    return id == 1 ? make_record(id, FOTA_REC_FACTORY_CFG)
                   : make_record(id, FOTA_REC_UPDATE, id == 2 ? 200 : 404, "dm");
}

void expect(int answer, int expected, const char* request) {
    require(answer == expected, std::string(request) + " is answered " + std::to_string(answer));
}

// Without the whole of them in memory.
bool are_same(const std::string& one, const std::string& other) {
    std::ifstream first(one, std::ios::binary), second(other, std::ios::binary);
    std::array<char, 65536> ones{}, others{};
    while (first && second) {
        first.read(ones.data(), ones.size());
        second.read(others.data(), others.size());
        const auto size = static_cast<size_t>(first.gcount());
        if (first.gcount() != second.gcount() || std::memcmp(ones.data(), others.data(), size) != 0)
            return false;
    }
    return first.eof() && second.eof();
}

pid_t start_daemon(const std::string& program) {
    const pid_t id = daemon_launch(program);
    require(id > 0 && daemon_wait_ready(id), "the daemon does not come back");
    return id;
}

}  // namespace

void end_daemon(pid_t id) {
    require(daemon_end(id, SIGTERM) == 0, "the daemon does not end");
}

void require(bool holds, const std::string& complaint) {
    if (!holds) throw wrong(complaint);
}

void put_old_state() {
    put_history({old_record(1), old_record(2), old_record(3)});
    put_file(FOTA_FACTORY_CFG_REC, "1");
    put_file(FOTA_PREVIOUS_SRC_VER, "1.0\n");
}

void check_history(const ended_update& update, const promises& told, device_notes& notes) {
    if (exists(FOTA_HISTORY_DB)) {
        require(fs::file_size(FOTA_HISTORY_DB) == FOTA_HISTORY_SLOTS * sizeof(fota_history_rec),
                "history.bin is torn");
    }
    const std::vector<fota_history_rec> records = device_history();
    std::set<uint32_t> ids;
    for (const fota_history_rec& record : records) {
        require(ids.insert(record.rec_id).second, "two records with one id");
    }
    size_t expected = update.records;
    if (!update.fresh) {
        for (uint32_t id = 1; id <= OLD_RECORDS; ++id) require(ids.contains(id), "an old record is lost");
        const fota_history_rec old = old_record(2);
        const fota_history_rec stored = stored_record(2);
        require(std::memcmp(&stored, &old, sizeof old) == 0, "an old record has changed");
        expected += OLD_RECORDS;
    }
    notes.recorded_twice = records.size() > expected;
    require(!notes.recorded_twice || (update.records_twice && records.size() <= expected + update.cuts),
            "too many records");
    require(!notes.recorded_twice || !told.processed || update.call_failed, "an outcome is recorded again");
    if (told.validated_id == 0) return;
    require(ids.contains(told.validated_id), "a record that the client knows is lost");
    const uint32_t status = stored_record(told.validated_id).status;
    require(told.status == 0 || status == told.status, "an outcome that the client knows is lost");
}

void check_staging(const ended_update& update) {
    const bool to_be_installed = exists(FOTA_STAGING_UPDATE_DLPKG_VERIFIED) ||
                                 exists(FOTA_STAGING_UPDATE_PRE_INSTALL) ||
                                 exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    if (!to_be_installed || update.content == package_content::NOT_VALIDATED) return;
    const std::string staging = FOTA_STAGING_DIR;
    require(update.content == package_content::GOOD, "a refused package is ready to be installed");
    bool is_whole = exists(FOTA_STAGING_CHECKSUM_LIST) && exists(FOTA_STAGING_TARGET_VER);
    for (const package_file& file : update.files) {
        const std::string path = staging + "/" + file.name;
        is_whole &= file.same_as.empty() ? get_file(path) == file.content : are_same(path, file.same_as);
    }
    require(is_whole, "part of a package is ready to be installed");
}

// Before the daemon starts again.
void check_promises(const ended_update& update, const promises& told) {
    require(!told.ready || update.result_left || exists(FOTA_STAGING_UPDATE_DLPKG_VERIFIED),
            "a package is ready no more");
    require(!told.handed_out || (!exists(FOTA_RESULT_PROCESSED) && !exists(FOTA_REVERT_PROCESSED)),
            "an outcome is handed out twice");
}

void check_outcome(const ended_update& update, device_notes& notes) {
    if (!update.result_left) return;
    const uint32_t before = update.fresh ? 0 : OLD_RECORDS;
    notes.outcome_lost = std::ranges::none_of(device_history(), [before](const fota_history_rec& record) {
        return record.rec_id > before && record.status != FOTA_STATUS_PENDING;
    });
    require(!notes.outcome_lost || update.call_failed, "the outcome is lost");
}

void check_next_session(const ended_update& update, const char* package) {
    if (exists(FOTA_SESSION_LOCK)) {
        require(get_file(FOTA_SESSION_LOCK) == update.agent,
                "the session belongs to '" + get_file(FOTA_SESSION_LOCK) + "'");
        expect(fota_client_clear_session_lock(update.agent, TIMEOUT_MS), FOTA_RC_SUCCESS,
               "the end of the session");
        for (const char* left : {FOTA_SESSION_LOCK, FOTA_TRACKING, FOTA_STAGING_DIR, FOTA_UPGRADE_PKG}) {
            require(!exists(left), std::string(left) + " outlives its session");
        }
    }
    for (const char* left : {FOTA_DECRYPT_TEMP, FOTA_CLEAN_UP, FOTA_FULL_FOTA_WAIT,
                             FOTA_PKG_DETAILS_ENCRYPTED, FOTA_PKG_DETAILS}) {
        require(!exists(left), std::string(left) + " outlives the start");
    }
    update_session next = {.agent = "next", .package = package != nullptr ? package : FOTA_UPGRADE_PKG};
    expect(agent_lock(next), FOTA_RC_SUCCESS, "the next session");
    const int seen = agent_pending_record(next);
    if (!update.call_failed) expect(seen, FOTA_RC_INVALID_PARAM, "the record of another agent's update");
    const int started = agent_start(next);
    if (!update.lock_lost) expect(started, FOTA_RC_INSTALL_START_FAILED, "an installation without a package");
    if (package == nullptr) {
        expect(fota_client_clear_session_lock("next", TIMEOUT_MS), FOTA_RC_SUCCESS,
               "the end of the next session");
        return;
    }
    expect(agent_validate(next), FOTA_RC_SUCCESS, "the next package");
    expect(fota_client_abort_current_session("next", 401, "", TIMEOUT_MS), FOTA_RC_SUCCESS, "the next abort");
}

void check_left_overs(bool whole_update) {
    for (const auto& entry : fs::directory_iterator(FOTA_DATA_DIR)) {
        const std::string name = entry.path().filename();
        require(name == "history.bin" || name == "update_check" || name == "factory_cfg_rec" ||
                    name == "previous" || name == "revert_processed" ||
                    (!whole_update && (name == "history.tmp" || name == "result_processed")),
                name + " is left over");
    }
}

void check_device(const ended_update& update, const promises& told, const daemon_start& start,
                  const char* package, device_notes& notes) {
    check_history(update, told, notes);
    check_staging(update);
    if (!update.call_failed) check_promises(update, told);
    pid_t daemon = start();
    if (exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL)) {
        notes.waited_for_installer = true;  // which was about to run, or the device's recovery in its place
        end_daemon(daemon);
        put_file(FOTA_STAGING_UPDATE_FAILURE, "409");
        daemon = start();
    }
    check_history(update, told, notes);
    check_staging(update);
    check_outcome(update, notes);
    check_next_session(update, package);
    end_daemon(daemon);
    check_left_overs(package != nullptr);
}

void check_device(const ended_update& update, const promises& told, const std::string& program,
                  const char* package, device_notes& notes) {
    check_device(
        update, told, [&program] { return start_daemon(program); }, package, notes);
}
