// The one place where the result of a command becomes output and an exit code.
#pragma once

#include "command.h"

enum exit_code {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,     // by the daemon; also when the output could not be written
    EXIT_USAGE = 2,       // nothing was sent
    EXIT_UNREACHABLE = 3  // the daemon gave no answer
};

// What to do when the daemon refuses this request with this result.
[[nodiscard]] std::string advice_on(fota_event event, int result);

// {"ok", "code", "name", "meaning"} of a result.
[[nodiscard]] nlohmann::ordered_json result_json(int result);

// Prints what `answer` holds, and for anything but success one line on the standard error stream: what is
// wrong and what to do. `error_number` is errno as the command left it.
[[nodiscard]] exit_code report(const command& command, const options& options, const answer& answer,
                               int error_number);
