// What the daemon's state files tell of the device, read as the daemon reads them, with the rights of this
// user. Nothing here changes or waits for anything.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fota/request.h"

enum class finding { ABSENT, PRESENT, NO_PERMISSION };

// A regular file, links followed: what counts as a flag.
[[nodiscard]] finding find_flag(const char* path);

// Whether this user may read the file.
[[nodiscard]] finding find_readable(const char* path);

// The first line of a regular file, at most 254 bytes, without its line end; `text` is empty unless PRESENT.
struct found_text {
    finding found = finding::ABSENT;
    std::string text = {};
};
[[nodiscard]] found_text find_text(const char* path);

// A session that no agent can have taken: its owner's name is empty.
[[nodiscard]] bool is_session_of_nobody();
inline constexpr char END_SESSION_OF_NOBODY[] = "'fotactl unlock \"\"' ends it and throws its package away";

// How far an update has come, the furthest first. `key` is for scripts.
struct update_stage {
    const char* key;
    const char* words;
    const char* file;  // whose presence it is
};
inline constexpr char NO_STAGE[] = "idle";
inline constexpr char STAGE_INSTALLING[] = "installing";
inline constexpr char STAGE_VALIDATED[] = "validated";

// Null when nothing is under way. `*found` is NO_PERMISSION, and the stage null, when a file that would
// decide may not be looked for.
[[nodiscard]] const update_stage* find_stage(finding* found);

enum class update_path { UNKNOWN, NONE, OVER_THE_AIR, SIDE_LOAD, SCRIPT };

// How the session's update comes to the device: "over the air", and "over_the_air" for scripts. Both are
// empty for NONE, and UNKNOWN is for want of permission.
[[nodiscard]] update_path find_update_path(const found_text& owner);
[[nodiscard]] const char* update_path_words(update_path path);
[[nodiscard]] const char* update_path_key(update_path path);

// The records that are in use.
struct found_history {
    finding found = finding::ABSENT;
    std::vector<fota_history_rec> records = {};
};
[[nodiscard]] found_history find_history();

// The one with this id, and the newest update or fall-back that has an outcome; null when there is none.
[[nodiscard]] const fota_history_rec* record_of(const found_history& history, uint32_t id);
[[nodiscard]] const fota_history_rec* newest_outcome(const found_history& history);
