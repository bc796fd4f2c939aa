#include "device_state.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "history/history_db.h"

namespace {

constexpr char SUA_AGENT[] = "SUA";

finding finding_of_errno() {
    return errno == EACCES || errno == EPERM ? finding::NO_PERMISSION : finding::ABSENT;
}

// clang-format off
constexpr update_stage STAGES[] = {
    {"fell_back", "the boot fail-safe went back to the previous firmware; recorded when fotad starts next",
     FOTA_REVERT_MARKER},
    {"install_failed", "the installer failed; recorded when fotad starts next", FOTA_STAGING_UPDATE_FAILURE},
    {"installed", "installed; recorded when fotad starts next", FOTA_STAGING_UPDATE_SUCCESS},
    {STAGE_INSTALLING, "installation started", FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL},
    {STAGE_INSTALLING, "installation started", FOTA_STAGING_UPDATE_PRE_INSTALL},
    {STAGE_VALIDATED, "package validated, waits for its installation", FOTA_STAGING_UPDATE_DLPKG_VERIFIED},
    {"downloaded", "package there, not validated", FOTA_UPGRADE_PKG},
    {"session_open", "session open, no package yet", FOTA_SESSION_LOCK},
    {"recorded", "outcome recorded, not asked for yet", FOTA_RESULT_PROCESSED},
    {"recorded", "fall-back recorded, not asked for yet", FOTA_REVERT_PROCESSED},
};

struct update_path_row {
    update_path path;
    const char* words;
    const char* key;
};
constexpr update_path_row PATHS[] = {
    {update_path::OVER_THE_AIR, "over the air", "over_the_air"},
    {update_path::SIDE_LOAD, "side-load", "side_load"},
    {update_path::SCRIPT, "by script (SUA)", "script"},
};
// clang-format on

const update_path_row* row_of(update_path path) {
    for (const update_path_row& row : PATHS) {
        if (row.path == path) return &row;
    }
    return nullptr;
}

}  // namespace

finding find_flag(const char* path) {
    struct stat info = {};
    if (stat(path, &info) != 0) return finding_of_errno();
    return S_ISREG(info.st_mode) ? finding::PRESENT : finding::ABSENT;
}

finding find_readable(const char* path) {
    errno = 0;
    return open_regular_for_reading(path) ? finding::PRESENT : finding_of_errno();
}

found_text find_text(const char* path) {
    const finding found = find_readable(path);
    if (found != finding::PRESENT) return {found};
    char line[FOTA_TEXT_SIZE];
    if (!read_first_line(path, line)) return {finding_of_errno()};
    text_cut_line_end(line);
    return {found, line};
}

bool is_session_of_nobody() {
    char owner[FOTA_TEXT_SIZE];
    return find_readable(FOTA_SESSION_LOCK) == finding::PRESENT &&
           read_first_line(FOTA_SESSION_LOCK, owner) && owner[0] == '\0';
}

const update_stage* find_stage(finding* found) {
    for (const update_stage& stage : STAGES) {
        *found = find_flag(stage.file);
        if (*found == finding::PRESENT) return &stage;
        if (*found == finding::NO_PERMISSION) return nullptr;
    }
    return nullptr;
}

update_path find_update_path(const found_text& owner) {
    if (find_flag(FOTA_SIDELOAD_COOKIE) == finding::PRESENT) return update_path::SIDE_LOAD;
    const finding sua_cookie = find_flag(FOTA_STAGING_SUA_COOKIE);
    if (owner.text == SUA_AGENT || sua_cookie == finding::PRESENT) return update_path::SCRIPT;
    if (owner.found == finding::NO_PERMISSION) return update_path::UNKNOWN;
    return owner.found == finding::PRESENT ? update_path::OVER_THE_AIR : update_path::NONE;
}

const char* update_path_words(update_path path) {
    const update_path_row* const row = row_of(path);
    return row == nullptr ? "" : row->words;
}

const char* update_path_key(update_path path) {
    const update_path_row* const row = row_of(path);
    return row == nullptr ? "" : row->key;
}

found_history find_history() {
    found_history history = {find_readable(FOTA_HISTORY_DB)};
    history_buffer slots;
    if (history.found != finding::PRESENT || read_full_db(&slots) != FOTA_RC_SUCCESS) return history;
    for (size_t i = 0; i < FOTA_HISTORY_SLOTS; ++i) {
        if (slots[i].rec_id != 0) history.records.push_back(slots[i]);
    }
    return history;
}

const fota_history_rec* record_of(const found_history& history, uint32_t id) {
    for (const fota_history_rec& record : history.records) {
        if (record.rec_id == id) return &record;
    }
    return nullptr;
}

const fota_history_rec* newest_outcome(const found_history& history) {
    const fota_history_rec* newest = nullptr;
    for (const fota_history_rec& record : history.records) {
        if (record.rec_type == FOTA_REC_FACTORY_CFG || record.status == FOTA_STATUS_PENDING) continue;
        if (newest == nullptr || record.rec_id > newest->rec_id) newest = &record;
    }
    return newest;
}
