// One played update: what was asked for, the way it takes, and how far it has come.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "fota/request.h"
#include "tools/play/agents.h"
#include "tools/play/programs.h"

// Exit status of a played update.
enum play_outcome {
    PLAY_UPDATED = 0,     // recorded as success, and nothing of the session is left
    PLAY_UNEXPECTED = 1,  // anything that is none of the others
    PLAY_FAILED = 10,     // the installer failed, and its failure is recorded
    PLAY_REVERTED = 11,   // the device went back to its previous firmware, and that is recorded
    PLAY_REFUSED = 12,    // validation refused the package, and that is recorded
    PLAY_RESET = 13,      // a factory reset ended the update before its installation, and that is recorded
    PLAY_UNRECORDED = 14  // the flash had no room for the outcome: the record stays pending, nothing is left
};

struct mishap;

struct play_options {
    std::string path;            // one of play_paths()
    std::string program_folder;  // where this program lies
    std::string keys_folder;
    update_session session;  // as it begins; without an agent, the one of the path drives the update
    installer_outcome installer = {.modem_pri = configuration::UPDATED, .linux_pri = configuration::UPDATED};
    bool no_state_manager = false;            // nobody switches run levels; a command has to do
    std::vector<const mishap*> mishaps;       // each comes about once
    std::string faults;                       // list that some of these come from, for the verdict
    std::optional<uint32_t> expected_status;  // any other status recorded is unexpected
    std::vector<std::string> shown_files;     // of the device; printed at the end
    uint32_t* recorded_status = nullptr;      // receives the status recorded
};

struct player;

struct play_step {
    const char* name;
    std::string (*run)(player& p);
};

// One way by which an update comes to the device. What this record says of it is also what the history has
// to.
struct play_path {
    const char* name;
    const char* help;
    const char* agent;
    const char* method;
    bool full_image;       // needs a package that brings its own upgrade script
    fota_rc other_answer;  // what another agent is answered while the update is under way
    std::array<std::span<const play_step>, 3> steps;
    std::array<const char*, 5> unused_options;
};

struct player {
    play_options options;
    const play_path& path;
    update_session session;
    pid_t daemon = -1;
    uint32_t refused_status = 0;  // to be recorded for a package that was refused
    bool reset = false;           // a factory reset came before the installation
    bool full_image = false;      // the installation is one of a full image
    bool unrecorded = false;      // there was no room to record the outcome
    bool kept = false;            // the device has been there before
    size_t log_begin = 0;         // of this play in the debug log
    uint32_t newest_known = 0;    // record that was there before this update
    std::string target{};         // version that the installer wrote, or was to write
    std::vector<fota_history_rec> history{};
    play_outcome ended = PLAY_UNEXPECTED;
    std::vector<std::string> details{};  // printed below the line of the step
};

struct unexpected : std::runtime_error {
    using std::runtime_error::runtime_error;
};
