// Which start of an installation counts. A start may wait, for seconds or for a script, before it switches
// the run level; meanwhile its session may end, or a newer start may come. Only the newest one that was not
// given up goes on, and only once. Any thread.
#pragma once

#include <cstdint>
#include <mutex>

// Begins a start, in the place of one that waits. Returns its number, never 0.
[[nodiscard]] uint32_t begin_start();

// The number of the start that waits; 0: none.
[[nodiscard]] uint32_t waiting_start();

// Whether start `number` may go on, which then waits no more: true once, for the newest start that was not
// given up and whose session has not ended. Otherwise false, and a log line in the name of `function`: files
// and wake lock may be somebody else's by now, and are left as they are.
[[nodiscard]] bool take_start(uint32_t number, const char* function);

// For who goes on: until this is released nobody gives the start up, so that no session ends with success
// between take_start() and the switch of the run level. Must not be held by who ends a session.
[[nodiscard]] std::unique_lock<std::recursive_mutex> lock_starts();

// Ends the start that waits, if there is one, since what it was to install is about to go: its wake lock is
// released, upgrade status 0 announced, and its thread does nothing more.
void give_up_waiting_start();
