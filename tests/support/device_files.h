// A clean device for a test, and its files. Only inside the sandbox: paths are the device's own.
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "common/state_files.h"
#include "fota/request.h"

// Writes a file, its folders made first.
void put_file(const std::string& path, std::string_view content);

// The file's content; "(none)" when there is no file.
std::string get_file(const std::string& path);

bool exists(const std::string& path);

// The names in a folder, sorted, separated by blanks; directories end in "/".
std::string list_folder(const std::string& path);

// Runs a shell command, which its first failure ends, with the build's programs in PATH.
void sh(const std::string& command);

// A device that has just been set up: an empty data directory and nothing else of a state.
void wipe_device();

// Random numbers for a test, from a seed that a failure shows; FOTA_SEED=N plays it again.
std::mt19937 random_numbers(unsigned* seed);

// A record with its id, type, status and owner.
fota_history_rec make_record(uint32_t id, uint32_t type = FOTA_REC_UPDATE, uint32_t status = 0,
                             const char* agent = "agent-a");

// Writes history.bin with these records in the first slots.
void put_history(const std::vector<fota_history_rec>& records);

// The record with this id as it is in history.bin; rec_id 0 when there is none.
fota_history_rec stored_record(uint32_t id);

// A request with an agent text in its payload, and its result word marked.
fota_event_msg make_request(int32_t event, std::string_view agent = "");
