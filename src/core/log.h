// The daemon's log lines: "[FOTA]:[LEVEL] - function: message" to the device's debug log and, where an
// operator should see it without the debug log, to the system log too. Any thread. A line is cut at
// FOTA_LOG_LINE_SIZE bytes. errno is the same after the call as before.
#pragma once

inline constexpr char FOTA_TAG[] = "FOTA";
inline constexpr int FOTA_LOG_LINE_SIZE = 4096;

enum fota_log_level { LOG_LEVEL_ERROR = 3, LOG_LEVEL_NOTICE = 5, LOG_LEVEL_INFO = 6, LOG_LEVEL_DEBUG = 7 };
enum fota_log_sinks { LOG_TO_DEBUG_LOG, LOG_TO_BOTH_LOGS };

// Writes one line. `function` may be null: the line then has no function slot.
[[gnu::format(printf, 4, 5)]] void fota_log(fota_log_sinks sinks, fota_log_level level, const char* function,
                                            const char* format, ...);

// The macros: LOG_LEVEL writes in the name of the function that it stands in, LOG_LEVEL_AS in another's, for
// a step that is a function of its own but speaks for its caller; null for a line without a function. Errors
// go to both logs unless the debug log alone is asked for; notices and details the other way round.
#define LOG_ERROR_AS(function, ...) fota_log(LOG_TO_BOTH_LOGS, LOG_LEVEL_ERROR, function, __VA_ARGS__)
#define LOG_ERROR_DEBUG_ONLY_AS(function, ...) \
    fota_log(LOG_TO_DEBUG_LOG, LOG_LEVEL_ERROR, function, __VA_ARGS__)
#define LOG_NOTICE_AS(function, ...) fota_log(LOG_TO_DEBUG_LOG, LOG_LEVEL_NOTICE, function, __VA_ARGS__)
#define LOG_NOTICE_BOTH_AS(function, ...) fota_log(LOG_TO_BOTH_LOGS, LOG_LEVEL_NOTICE, function, __VA_ARGS__)
#define LOG_DEBUG_AS(function, ...) fota_log(LOG_TO_DEBUG_LOG, LOG_LEVEL_DEBUG, function, __VA_ARGS__)
#define LOG_ERROR(...) LOG_ERROR_AS(__func__, __VA_ARGS__)
#define LOG_ERROR_DEBUG_ONLY(...) LOG_ERROR_DEBUG_ONLY_AS(__func__, __VA_ARGS__)
#define LOG_NOTICE(...) LOG_NOTICE_AS(__func__, __VA_ARGS__)
#define LOG_NOTICE_BOTH(...) LOG_NOTICE_BOTH_AS(__func__, __VA_ARGS__)
#define LOG_INFO(...) fota_log(LOG_TO_DEBUG_LOG, LOG_LEVEL_INFO, __func__, __VA_ARGS__)
#define LOG_DEBUG(...) LOG_DEBUG_AS(__func__, __VA_ARGS__)
