// Device logs: the debug log, and the system log.
#ifndef FOTA_PLATFORM_VEXA_DBG_H
#define FOTA_PLATFORM_VEXA_DBG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Starts and stops the debug log of this process. Messages before the start and after the stop are lost.
// Main thread only.
void vexa_dbg_start(void);
void vexa_dbg_stop(void);

// Appends one message to the debug log. `tag` names the program; a port may filter on tag and level. Messages
// of several threads never mix within a line. Keeps errno. Any thread.
void vexa_dbg_log(const char* tag, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Sends one message to the system log with the priority number `priority` (facility and severity). Keeps
// errno. Any thread.
void vexa_dbg_syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// What this thread's lines are about from now on, for logs that have fields. An `event`, by its name, begins
// anew: no agent and no record is known yet; "" ends that. Where `event` is null, what has become known is
// added: the agent's id unless null, the record's number unless 0. Texts are copied. Any thread.
void vexa_dbg_context(const char* event, const char* agent, uint32_t record);

// The name of a level: 3 errors, 5 notices, 6 and 7 detail. Never null. Any thread.
const char* vexa_dbg_get_level_name(int level);

#ifdef __cplusplus
}
#endif

#endif
