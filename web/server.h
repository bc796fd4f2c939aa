// The process that speaks HTTP. It trusts nobody: not what comes in, and the keeper of the rights does not
// trust it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "web/rights.h"

struct server_options {
    int listener = -1;               // a socket that listens
    int channel = -1;                // to the keeper of the rights
    std::string password_line;       // see password.h
    std::vector<std::string> hosts;  // names, besides numbers, by which browsers may call this device
    web_start start{};
    std::function<void()> confine;  // called when all is open that is needed; serving begins after it
};

// Serves until the keeper is gone. Throws std::exception when it cannot.
void serve(const server_options& options);
