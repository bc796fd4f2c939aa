// Plays one update on the simulated device, from its beginning to the recorded outcome.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
    int package_fd = -1;  // what comes to the device, at its beginning
    std::string agent;    // who drives the update; empty: who does so on this path
    uint32_t boot_preference = 0;
    uint32_t wait_secs = 0;               // between the start request and the installation
    std::optional<long> installer_code;   // the installer fails with it
    std::optional<uint32_t> revert_code;  // the boot fail-safe rejects the new firmware with it
    std::string reason;                   // text of the installer or of the fail-safe; empty: it leaves none
    bool modem_pri_fails = false;         // the installer cannot update the configuration
    bool linux_pri_fails = false;
    bool no_state_manager = false;            // nobody switches run levels; a command has to do
    std::vector<const mishap*> mishaps;       // each comes about once
    std::string faults;                       // list that some of these come from, for the verdict
    std::optional<uint32_t> expected_status;  // any other status recorded is unexpected
    std::vector<std::string> shown_files;     // of the device; printed at the end
    uint32_t* recorded_status = nullptr;      // receives the status recorded
};

// The ways by which an update comes to the device, the first one being the usual; and what each is, a line
// each.
std::vector<std::string> play_paths();
std::string play_paths_text();

// The options of the command line that have no meaning on that path.
std::vector<std::string> play_unused_options(const std::string& path);

const char* play_outcome_name(play_outcome outcome);

// Prints one line a step. Call it inside the sandbox, from its process 1.
play_outcome play(const play_options& options);
