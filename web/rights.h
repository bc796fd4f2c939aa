// All that the process that speaks HTTP may ask of the one that keeps the rights: these six, and nothing
// else. No path, no event number and no agent comes from the asking side, and it gets no descriptor but the
// one that an upload is written to. Records of fixed size over a socket pair; one of another size ends the
// service.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fota/history_record.h"

enum class web_ask : uint32_t {
    STATE = 1,    // where the device stands; the other answers tell that, too
    UPLOAD = 2,   // room for a file of `size` bytes: refused with a reason, or a descriptor to write to,
                  // which stands after the `offset` bytes that are there already; `mark` tells files apart
    CHECK = 3,    // the file is there, with `size` bytes: check it and read what it is
    INSTALL = 4,  // install what was checked; `mark` comes back after the restart, see web_start
    GIVE_UP = 5,  // throw the upload or the checked package away; have done with a refusal or an outcome
    HISTORY = 6,  // answered with a web_history
};

inline constexpr size_t WEB_MARK_SIZE = 32;

struct web_request {
    web_ask ask;
    uint32_t size;
    unsigned char mark[WEB_MARK_SIZE];
};

enum class web_stage : uint32_t {
    CLOSED,      // takes nothing now; `reason` says why, and `holder` who has the session
    READY,       // takes a file of at most `limit` bytes
    UPLOADING,   // `offset` of `size` bytes are there
    CHECKING,    // the daemon, and then this program, look at it
    CHECKED,     // good: `from`, `to`, `description`, `estimate_secs`
    REFUSED,     // not taken, or not started: `reason`, and `detail` for experts
    INSTALLING,  // ordered; `reason` is why the daemon does not answer, if it does not
    OUTCOME,     // of the installation that was ordered here: `outcome`; its status 0: none is recorded
};

inline constexpr size_t WEB_TEXT_SIZE = 255;

// Texts end in NUL. `result` is of what was asked, `reason` of the stage: FOTA_RC_... or FOTA_CLIENT_...
struct web_answer {
    int32_t result;
    web_stage stage;
    int32_t reason;
    uint32_t limit, offset, size, estimate_secs;
    int32_t percent;  // of the installation, which says it itself, with `progress`; -1: it does not
    char firmware[WEB_TEXT_SIZE], holder[WEB_TEXT_SIZE], detail[WEB_TEXT_SIZE];
    char from[WEB_TEXT_SIZE], to[WEB_TEXT_SIZE], description[WEB_TEXT_SIZE], progress[WEB_TEXT_SIZE];
    fota_history_rec outcome;
};

// The newest first.
struct web_history {
    int32_t result;
    uint32_t count;
    fota_history_rec records[20];
};

// Sent once, before anything is asked: what the asking side needs of the files that it cannot open.
struct web_start {
    bool has_mark;  // an installation was ordered before the restart
    unsigned char mark[WEB_MARK_SIZE];
};
