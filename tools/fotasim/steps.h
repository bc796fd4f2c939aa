// The ways by which an update comes to the device, and the steps that each is made of: requests to the
// daemon, what the other programs do, and looks at what the daemon says and leaves.
//
// A step answers in one line; an empty one means that it has nothing to do in this play. What it throws ends
// the play as unexpected.
#pragma once

#include <sys/types.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "player.h"

// The first one is the usual.
[[nodiscard]] std::span<const play_path> all_paths();

// What follows on each of them.
[[nodiscard]] std::span<const play_step> ending_steps();

// Steps that mishaps and the shell need too. The installer works while the daemon does not run.
[[nodiscard]] std::string start_daemon(player& p);
[[nodiscard]] std::string install(player& p);
[[nodiscard]] std::string reboot(player& p);

// Starts the daemon of the tools in a folder and waits until it answers.
[[nodiscard]] pid_t start_fotad(const std::string& program_folder);

// The record that the bus holds under a key; zero when it holds none.
[[nodiscard]] fota_history_rec announced_record(const char* key);

// The answer in words; throws when it is not the expected one.
[[nodiscard]] std::string require_result(int result, int expected);

[[nodiscard]] std::string in_quotes(std::string_view text);

// The last lines of a text file, from its byte `begin` on, that hold `text`; with control characters escaped.
[[nodiscard]] std::vector<std::string> last_lines(const std::string& path, std::string_view text = "",
                                                  size_t begin = 0);
