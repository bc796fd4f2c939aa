// The process that keeps the rights: it alone asks the daemon, reads the device's keys and writes its flash.
#pragma once

#include <sys/types.h>

#include "web/rights.h"

// Who drives updates of the page, in the session and in the history.
inline constexpr char WEB_AGENT[] = "fotaweb";

// An installation that was ordered before this start, for web_start.
[[nodiscard]] web_start read_order();

// Answers what the process `asker` asks over `channel`, until that one is gone. Call it once, without other
// threads. What is left of an upload is thrown away then and at the start.
void keep_rights(int channel, pid_t asker);
