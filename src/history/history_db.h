// The history file as a whole: 20 records back to back, without header or checksum. It is never changed in
// place but written anew beside and renamed, so that a power cut leaves the old or the new file; what was
// written beside then stays until the next time, and nobody reads it.
#pragma once

#include <cstdlib>
#include <memory>
#include <mutex>

#include "fota/history_record.h"
#include "fota/result_codes.h"

inline constexpr size_t FOTA_HISTORY_SLOTS = 20;

struct free_deleter {
    void operator()(void* memory) const { free(memory); }
};
using history_buffer = std::unique_ptr<fota_history_rec[], free_deleter>;

// Gives `*buffer` 20 records, zeroed and then read from the history file; slots that the file lacks stay
// empty. Records that it has already are taken as they are: whoever hands them on has held the history since
// they were read. FOTA_RC_NO_MEMORY: `*buffer` is null. FOTA_RC_FILE_NOT_FOUND: the records are there, all
// empty; or `*buffer` is null, when the file may well be there but cannot be read now. Any thread.
[[nodiscard]] fota_rc read_full_db(history_buffer* buffer);

// Replaces the history file by the 20 records. The codes of fota_create_a_file; FOTA_RC_FILE_WRITE_FAILED
// also when the rename fails; the old file is then untouched. FOTA_RC_EMPTY_OR_SYNC_FAILED when only the last
// folder sync failed.
[[nodiscard]] fota_rc write_to_db(const history_buffer& buffer);

// How often this process has written the file: as long as that stays the same, an id that was free is free.
// Any thread.
[[nodiscard]] uint32_t history_writes();

// Held across each read, change and write, so that no thread's change is lost. Recursive: a caller that looks
// a record up before it changes it, or takes an id before it adds the record, holds it over both.
[[nodiscard]] std::unique_lock<std::recursive_mutex> lock_history();
