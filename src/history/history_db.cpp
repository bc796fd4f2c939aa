#include "history/history_db.h"

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "core/log.h"

namespace {

constexpr size_t DB_SIZE = FOTA_HISTORY_SLOTS * sizeof(fota_history_rec);
static_assert(DB_SIZE == 56880);

std::recursive_mutex history_mutex;
std::atomic<uint32_t> writes;

}  // namespace

std::unique_lock<std::recursive_mutex> lock_history() {
    return std::unique_lock<std::recursive_mutex>(history_mutex);
}

uint32_t history_writes() {
    return writes;
}

fota_rc read_full_db(history_buffer* buffer) {
    LOG_DEBUG("+++\n");
    if (*buffer) return FOTA_RC_SUCCESS;
    buffer->reset(static_cast<fota_history_rec*>(calloc(1, DB_SIZE)));
    if (!*buffer) {
        LOG_ERROR("calloc failed\n");
        return FOTA_RC_NO_MEMORY;
    }
    errno = 0;
    const file_ptr stream = open_for_reading(FOTA_HISTORY_DB);
    if (stream) {
        setvbuf(stream.get(), nullptr, _IONBF, 0);  // straight into the records
        // A file cut short gives the records that it has; what is missing is empty.
        [[maybe_unused]] const size_t records =
            fread(buffer->get(), sizeof(fota_history_rec), FOTA_HISTORY_SLOTS, stream.get());
        if (ferror(stream.get()) == 0 || !is_passing_error(errno)) return FOTA_RC_SUCCESS;
    }
    if (is_passing_error(errno)) {
        LOG_ERROR("DB file:%s cannot be read now, errno:%d\n", FOTA_HISTORY_DB, errno);
        buffer->reset();  // an empty history would be written over it
    } else {
        LOG_ERROR_DEBUG_ONLY("DB file:%s not found\n", FOTA_HISTORY_DB);
    }
    return FOTA_RC_FILE_NOT_FOUND;
}

fota_rc write_to_db(const history_buffer& buffer) {
    LOG_DEBUG("+++\n");
    const fota_rc created = fota_create_a_file(FOTA_HISTORY_TMP, buffer.get(), DB_SIZE);
    if (created != FOTA_RC_SUCCESS) {
        LOG_ERROR("fota_create_a_file() failed, rc:%d\n", static_cast<int>(created));
        return created;
    }
    if (rename(FOTA_HISTORY_TMP, FOTA_HISTORY_DB) != 0) {
        LOG_ERROR("rename() failed, errno:%d\n", errno);
        return FOTA_RC_FILE_WRITE_FAILED;
    }
    ++writes;
    const fota_rc synced = sync_directory(FOTA_DATA_DIR);
    if (synced != FOTA_RC_SUCCESS) return synced;
    LOG_NOTICE("Done\n");
    return FOTA_RC_SUCCESS;
}
