// The steps that played updates are made of: requests to the daemon, and looks at what it says and leaves.
//
// A step answers in one line; an empty one means that it has nothing to do in this play. What it throws ends
// the play as unexpected.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "player.h"

// The record that the bus holds under a key; zero when it holds none.
fota_history_rec announced_record(const char* key);

// 0 nothing under way, 1 an installation, 2 the full-image installation resets the device.
int32_t upgrade_status();

// What a script-driven update is told of the device.
fota_device_info device_information();

std::string in_quotes(std::string_view text);

// The answer in words; throws when it is not the expected one.
std::string require_result(int result, int expected);

// The records in the history's file.
std::vector<fota_history_rec> read_history_file();

// The last lines of a text file, from its byte `begin` on, that hold `text`; with control characters escaped.
std::vector<std::string> last_lines(const std::string& path, std::string_view text = "", size_t begin = 0);

// Starts the daemon of the tools in a folder and waits until it answers.
pid_t start_fotad(const std::string& program_folder);

// The daemon's process.
std::string start_daemon(player& p);
std::string stop_daemon(player& p);

// Over the air.
std::string create_session_lock(player& p);
std::string get_max_size(player& p);
std::string validate(player& p);
std::string get_current_record(player& p);
std::string defer_once(player& p);
std::string start_installation(player& p);

// The other ways.
std::string get_sideload_max_size(player& p);
std::string sideload_prepare(player& p);
std::string sideload_start(player& p);
std::string sua_start(player& p);
std::string factory_reset(player& p);

// While the installation is under way.
std::string ask_as_other(player& p);
std::string show_broadcasts(player& p);

// Afterwards.
std::string get_update_status(player& p);
std::string get_no_update_status(player& p);
std::string get_revert_status(player& p);
std::string get_idle_status(player& p);
std::string show_history(player& p);
std::string find_left_overs(player& p);
std::string show_files(player& p);
