// Plays one update on the simulated device, from its beginning to the recorded outcome.
#pragma once

#include <string>
#include <vector>

#include "player.h"

// The ways by which an update comes to the device, the first one being the usual; and what each is, a line
// each.
[[nodiscard]] std::vector<std::string> play_paths();
[[nodiscard]] std::string play_paths_text();

// The options of the command line that have no meaning on that path.
[[nodiscard]] std::vector<std::string> play_unused_options(const std::string& path);

[[nodiscard]] const char* play_outcome_name(play_outcome outcome);

// Prints one line a step. Call it inside the sandbox, from its process 1.
[[nodiscard]] play_outcome play(const play_options& options);
