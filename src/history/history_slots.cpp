#include "history/history_slots.h"

#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "results/cookies.h"
#include "vexa_dbg.h"

namespace {

// The first slot with this id, or null.
fota_history_rec* find_slot(fota_history_rec* slots, uint32_t id) {
    for (size_t i = 0; i < FOTA_HISTORY_SLOTS; ++i) {
        if (slots[i].rec_id == id) return &slots[i];
    }
    return nullptr;
}

// The used record with the largest id among those that `wanted` takes, or null.
const fota_history_rec* find_newest(const fota_history_rec* slots, bool (*wanted)(const fota_history_rec&)) {
    const fota_history_rec* newest = nullptr;
    for (size_t i = 0; i < FOTA_HISTORY_SLOTS; ++i) {
        if (slots[i].rec_id == 0 || !wanted(slots[i])) continue;
        if (newest == nullptr || slots[i].rec_id > newest->rec_id) newest = &slots[i];
    }
    return newest;
}

bool is_success_record(const fota_history_rec& record) {
    return record.rec_type == FOTA_REC_UPDATE && record.status == FOTA_STATUS_SUCCESS;
}

bool is_cfg_record(const fota_history_rec& record) {
    return record.rec_type == FOTA_REC_FACTORY_CFG;
}

bool has_success_status(const fota_history_rec& record) {
    return record.status == FOTA_STATUS_SUCCESS;
}

}  // namespace

uint32_t allocate_new_record_id(history_buffer* known) {
    history_buffer own;
    history_buffer& slots = known != nullptr ? *known : own;
    if (read_full_db(&slots) != FOTA_RC_SUCCESS) {
        if (!slots) return 0;  // it may hold any id
        slots.reset();         // not read: there is no file yet
        vexa_dbg_context(nullptr, nullptr, 1);
        LOG_ERROR("read_full_db() failed, set new record id to 1\n");
        return 1;
    }
    uint32_t id = 0;
    for (size_t i = 0; i < FOTA_HISTORY_SLOTS; ++i) {
        if (slots[i].rec_id > id) id = slots[i].rec_id;
    }
    ++id;
    vexa_dbg_context(nullptr, nullptr, id);
    LOG_NOTICE("New record id:%d\n", static_cast<int>(id));
    return id;
}

fota_rc add_record_to_db(const fota_history_rec* record, history_buffer* known) {
    LOG_NOTICE("+++\n");
    if (record == nullptr) return FOTA_RC_INVALID_PARAM;
    const auto lock = lock_history();
    history_buffer own;
    history_buffer& slots = known != nullptr ? *known : own;
    const fota_rc rc = read_full_db(&slots);
    if (!slots) {
        LOG_ERROR("Buffer allocation failed\n");
        return rc;
    }
    copy_record_into_list(record, slots.get());
    return write_to_db(slots);
}

void copy_record_into_list(const fota_history_rec* record, fota_history_rec* slots) {
    LOG_DEBUG("+++\n");
    uint32_t oldest_id = record->rec_id;
    int index = 0;
    int success_count = 0;
    int cfg_count = 0;
    for (int i = 0; i < static_cast<int>(FOTA_HISTORY_SLOTS); ++i) {
        if (slots[i].rec_id == 0) {
            LOG_DEBUG("Found empty slot, index:%d\n", i);
            slots[i] = *record;
            return;
        }
        LOG_DEBUG("db[%d].rec_id:%d oldest_id:%d, idx:%d, success_rec_count:%d, cfg_rec_count:%d\n", i,
                  static_cast<int>(slots[i].rec_id), static_cast<int>(oldest_id), index, success_count,
                  cfg_count);
        if (slots[i].rec_id < oldest_id) {
            oldest_id = slots[i].rec_id;
            index = i;
        }
        if (is_success_record(slots[i])) ++success_count;
        if (is_cfg_record(slots[i])) ++cfg_count;
    }
    LOG_DEBUG("Oldest idx:%d, success_rec_count:%d, cfg_rec_count:%d\n", index, success_count, cfg_count);
    if ((is_cfg_record(slots[index]) && cfg_count == 1) ||
        (is_success_record(slots[index]) && success_count == 1)) {
        const fota_history_rec* next = find_slot(slots, oldest_id + 1);
        if (next != nullptr) index = static_cast<int>(next - slots);
    }
    LOG_DEBUG("Final idx:%d, success_rec_count:%d, cfg_rec_count:%d\n", index, success_count, cfg_count);
    slots[index] = *record;
}

fota_rc find_record_by_id(uint32_t id, fota_history_rec* out, history_buffer* known) {
    vexa_dbg_context(nullptr, nullptr, id);
    history_buffer own;
    history_buffer& slots = known != nullptr ? *known : own;
    const fota_rc rc = read_full_db(&slots);
    if (rc == FOTA_RC_FILE_NOT_FOUND && !slots) return FOTA_RC_FAILURE;
    if (rc != FOTA_RC_SUCCESS) return rc;
    const fota_history_rec* slot = find_slot(slots.get(), id);
    if (slot == nullptr) return FOTA_RC_RECORD_NOT_FOUND;
    if (out != nullptr) *out = *slot;
    return FOTA_RC_SUCCESS;
}

fota_rc update_existing_record_in_db(const fota_history_rec* record, history_buffer* known) {
    const auto lock = lock_history();
    history_buffer own;
    history_buffer& slots = known != nullptr ? *known : own;
    const fota_rc rc = read_full_db(&slots);
    if (rc != FOTA_RC_SUCCESS) return rc;
    fota_history_rec* slot = find_slot(slots.get(), record->rec_id);
    if (slot == nullptr) return FOTA_RC_RECORD_NOT_FOUND;
    *slot = *record;
    return write_to_db(slots);
}

fota_rc copy_result_into_db(uint32_t status, uint32_t modem_pri_result, uint32_t linux_pri_result,
                            const char* reason, uint32_t id) {
    vexa_dbg_context(nullptr, nullptr, id);
    const auto lock = lock_history();
    history_buffer slots;
    const fota_rc rc = read_full_db(&slots);
    if (rc != FOTA_RC_SUCCESS) return rc;
    fota_history_rec* slot = find_slot(slots.get(), id);
    if (slot == nullptr) return FOTA_RC_RECORD_NOT_FOUND;
    slot->status = status;
    slot->modem_pri_result = modem_pri_result;
    slot->linux_pri_result = linux_pri_result;
    if (reason != nullptr) text_copy(slot->reason, sizeof slot->reason, reason, sizeof slot->reason);
    return write_to_db(slots);
}

fota_rc get_last_success_record(fota_history_rec* out) {
    history_buffer slots;
    const fota_rc rc = read_full_db(&slots);
    if (rc != FOTA_RC_SUCCESS) return rc;
    const fota_history_rec* newest = find_newest(slots.get(), has_success_status);
    if (newest == nullptr) return FOTA_RC_RECORD_NOT_FOUND;
    if (out != nullptr) *out = *newest;
    return FOTA_RC_SUCCESS;
}

fota_rc get_latest_cfg_record(fota_history_rec* out) {
    history_buffer slots;
    if (read_full_db(&slots) != FOTA_RC_SUCCESS) return FOTA_RC_RECORD_NOT_FOUND;
    const fota_history_rec* newest = find_newest(slots.get(), is_cfg_record);
    if (newest == nullptr) return FOTA_RC_RECORD_NOT_FOUND;
    *out = *newest;
    return FOTA_RC_SUCCESS;
}

fota_rc get_record_count(fota_record_count* out) {
    *out = {};
    uint32_t factory_cfg_id = 0;
    uint32_t pending_id = 0;
    (void)fota_read_str_conv_to_uint32(FOTA_FACTORY_CFG_REC, &factory_cfg_id);
    (void)fota_get_tracking_cookie(&pending_id);
    history_buffer slots;
    const fota_rc rc = read_full_db(&slots);
    if (rc != FOTA_RC_SUCCESS) return rc;
    for (size_t i = 0; i < FOTA_HISTORY_SLOTS; ++i) {
        const uint32_t id = slots[i].rec_id;
        if (id == 0) continue;
        if (id == factory_cfg_id) {
            LOG_NOTICE("Skipping factory cfg record (ID:%d)\n", static_cast<int>(id));
            continue;
        }
        if (id == pending_id) {
            LOG_NOTICE("Skipping record of pending to install (ID:%d)\n", static_cast<int>(id));
            continue;
        }
        char item[16];
        text_format(item, sizeof item, "%u,", id);
        // 20 ids of at most 10 digits fit the 255 bytes.
        text_append(out->list, FOTA_TEXT_SIZE, item, sizeof item);
        ++out->count;
    }
    return FOTA_RC_SUCCESS;
}

fota_rc get_record_by_index(fota_history_rec* out, uint32_t index, uint32_t factory_cfg_id,
                            uint32_t pending_id) {
    history_buffer slots;
    const fota_rc rc = read_full_db(&slots);
    if (rc != FOTA_RC_SUCCESS) return rc;
    uint32_t oldest_id = 0;
    for (size_t i = 0; i < FOTA_HISTORY_SLOTS; ++i) {
        const uint32_t id = slots[i].rec_id;
        if (id != 0 && (oldest_id == 0 || id < oldest_id)) oldest_id = id;
    }
    if (oldest_id == 0) {
        LOG_ERROR("Record ID cannot be 0\n");
        return FOTA_RC_FAILURE;
    }
    uint32_t target = oldest_id + index;
    LOG_DEBUG("rec_to_copy=%d, temp_rec_id=%d, index=%u, factory_cfg_rec_id:%u, pending_install_rec_id:%u\n",
              static_cast<int>(target), static_cast<int>(oldest_id), index, factory_cfg_id, pending_id);
    // One walk in slot order: a hidden record met after the target's slot no longer shifts the target.
    for (size_t i = 0; i < FOTA_HISTORY_SLOTS; ++i) {
        const uint32_t id = slots[i].rec_id;
        if (id == 0) continue;
        if (id == factory_cfg_id) {
            LOG_DEBUG(
                "Factory cfg id match. factory_cfg_rec_id=%u, pBuf[i].rec_id=%u, rec_to_copy=%d, "
                "temp_rec_id=%d, index=%d\n",
                factory_cfg_id, id, static_cast<int>(target), static_cast<int>(oldest_id),
                static_cast<int>(index));
            if (id <= oldest_id) ++target;
        } else if (id == pending_id) {
            LOG_DEBUG(
                "Pending_Install id match. pending_install_rec_id=%u, pBuf[i].rec_id=%u, rec_to_copy=%d, "
                "temp_rec_id=%d, index=%d\n",
                pending_id, id, static_cast<int>(target), static_cast<int>(oldest_id),
                static_cast<int>(index));
            if (id <= target) ++target;
        } else if (id == target) {
            *out = slots[i];
            return FOTA_RC_SUCCESS;
        }
    }
    return FOTA_RC_RECORD_NOT_FOUND;
}

fota_rc save_update_check_time(const char* text) {
    return fota_create_a_file(FOTA_UPDATE_CHECK, text, strlen(text));
}
