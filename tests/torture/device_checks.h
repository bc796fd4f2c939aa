// What has to be so of a device after an update that was ended at some point, by what its client had been
// told until then.
//
// For a device whose files are in their places: inside the sandbox, where the disk of another one may be
// mounted as /opt. Each check throws `wrong`, with one sentence, when something is not as promised.
#pragma once

#include <sys/types.h>

#include <functional>
#include <span>
#include <stdexcept>
#include <string>

#include "fota/request.h"

// What the daemon has answered, which binds it.
struct promises {
    uint32_t validated_id;  // there is such a record
    uint32_t status;        // of that record; 0: none promised
    bool processed;         // the start that processed a result is over
    bool ready;             // its package is ready to be installed
    bool handed_out;        // the outcome, which is handed out once
};

enum class package_content { GOOD, REFUSED, NOT_VALIDATED };

struct package_file {
    std::string name;
    std::string content;
    std::string same_as{};  // a file with its content, in the place of that: of one that is large
};

struct ended_update {
    const char* agent;
    package_content content;
    std::span<const package_file> files;  // of a good package, all of them
    size_t records;                       // that it makes
    bool fresh;                // on a device without a data directory; on another, put_old_state() came first
    bool records_twice;        // ended between recording and clearing up, it makes another record
    size_t cuts = 1;           // so many times it was ended
    bool call_failed = false;  // a call of the daemon failed: some of the promises end there
    bool lock_lost = false;    // its folder was not synced: what the session had may be the next agent's
    bool result_left = false;  // installer or fail-safe had left a result
};

// What may come about, and is to be counted.
struct device_notes {
    bool recorded_twice = false;
    bool outcome_lost = false;
    bool waited_for_installer = false;
};

struct wrong : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void require(bool holds, const std::string& complaint);

// A few records, as an earlier life of the device leaves them.
void put_old_state();

// At any time, beside a daemon or without one. What says that there is something to install must be right.
void check_history(const ended_update& update, const promises& told, device_notes& notes);
void check_staging(const ended_update& update);

// When a daemon has started on what the update left: the outcome is recorded.
void check_outcome(const ended_update& update, device_notes& notes);

// Beside that daemon: the session is over, or its owner can end it, and the next update works. It takes the
// good package at `package`; null, for many checks in little time: it ends before it has one.
void check_next_session(const ended_update& update, const char* package);

// When that daemon has ended. What only a whole update takes away is left over when there was none.
void check_left_overs(bool whole_update = true);

// All of that, with starts of the daemon in between: the one at `program`, or by a function that returns its
// process once it serves. From process 1 of the sandbox.
using daemon_start = std::function<pid_t()>;
void check_device(const ended_update& update, const promises& told, const daemon_start& start,
                  const char* package, device_notes& notes);
void check_device(const ended_update& update, const promises& told, const std::string& program,
                  const char* package, device_notes& notes);

// Ends a daemon as a shutdown does.
void end_daemon(pid_t id);
