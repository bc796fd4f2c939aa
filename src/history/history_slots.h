// Records in the history: ids, slots, look-ups and the list that a user sees. Ids grow by one with each
// record; the smallest is the oldest. Each operation works on the file as it is now and keeps nothing between
// calls. Any thread.
//
// Codes: FOTA_RC_SUCCESS; FOTA_RC_RECORD_NOT_FOUND; those of read_full_db and write_to_db.
// An id given to these functions is not 0, which would name an empty slot.
//
// `known`, where it is given: what the last operation read, for the next one under the same lock_history, so
// that the file is read once. Null, or empty: the file is read.
#pragma once

#include <cstdint>

#include "fota/request.h"
#include "history/history_db.h"

// The id for the next record: the largest in the file and one; 1 when there is no history. 0 when ids have
// run out, or when there may be a history that cannot be read now.
[[nodiscard]] uint32_t allocate_new_record_id(history_buffer* known = nullptr);

// Stores a record, over an old one when all slots are taken. FOTA_RC_INVALID_PARAM without a record.
[[nodiscard]] fota_rc add_record_to_db(const fota_history_rec* record, history_buffer* known = nullptr);

// Puts a record into the first empty of 20 slots, else over the oldest; but the only configuration record, or
// the only successful update, is spared when it is the oldest and the record after it, of the next id, is
// there to take its place.
void copy_record_into_list(const fota_history_rec* record, fota_history_rec* slots);

// Copies the record with `id` into `*out` (may be null). FOTA_RC_FILE_NOT_FOUND: there is no history;
// FOTA_RC_FAILURE: there may be one, with that record, that cannot be read now.
[[nodiscard]] fota_rc find_record_by_id(uint32_t id, fota_history_rec* out, history_buffer* known = nullptr);

// Replaces the record of the same id.
[[nodiscard]] fota_rc update_existing_record_in_db(const fota_history_rec* record,
                                                   history_buffer* known = nullptr);

// Writes an outcome into the record with `id`; `reason` may be null, to stay as it is, and is bounded to 254
// bytes.
[[nodiscard]] fota_rc copy_result_into_db(uint32_t status, uint32_t modem_pri_result,
                                          uint32_t linux_pri_result, const char* reason, uint32_t id);

// The newest record with status 200, of any type; `out` may be null.
[[nodiscard]] fota_rc get_last_success_record(fota_history_rec* out);

// The newest configuration record; FOTA_RC_RECORD_NOT_FOUND also when the history cannot be read.
[[nodiscard]] fota_rc get_latest_cfg_record(fota_history_rec* out);

// Number and ids of the records that a user sees: all but the factory configuration and the pending update.
[[nodiscard]] fota_rc get_record_count(fota_record_count* out);

// The record at position `index` of that list, the oldest first. `factory_cfg_id` and `pending_id` name the
// hidden records, 0 for none. The position counts ids from the oldest, so a gap in the ids gives
// FOTA_RC_RECORD_NOT_FOUND. FOTA_RC_FAILURE when the history is empty.
[[nodiscard]] fota_rc get_record_by_index(fota_history_rec* out, uint32_t index, uint32_t factory_cfg_id,
                                          uint32_t pending_id);

// Stores the time of the last update check, in whatever text the client uses. Codes of fota_create_a_file.
[[nodiscard]] fota_rc save_update_check_time(const char* text);
