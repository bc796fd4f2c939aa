// What goes wrong at one step of a played update, and how the update goes on afterwards.
#pragma once

#include <span>
#include <string>

#include "steps.h"

struct mishap {
    const char* fault;
    const char* stage;
    const char* paths;                      // that it can come about on, with blanks between
    const char* step;                       // that it comes about at
    const char* resume;                     // step that the update goes on with; null: the one after it
    std::span<const play_step> afterwards;  // what happens before that
    std::string (*happen)(player& p, const mishap& m, const play_step& step);  // in the place of the step
    const char* file = nullptr;           // of the device, whose run, or arrival, it interrupts
    play_outcome outcome = PLAY_UPDATED;  // that: the one that the path has without it, and its status
    uint32_t status = 0;
};

[[nodiscard]] std::span<const mishap> all_mishaps();

[[nodiscard]] bool is_on_path(const mishap& m, const std::string& path);
