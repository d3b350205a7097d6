// The daemon's one way of reporting: a line with a level, the calling function's name, the line
// number of the call and an error number.
//
// The macros test the level before their arguments are evaluated, so that a debug line costs a load
// and a branch while debugging is off. Never called from a signal handler: syslog and stdio are not
// re-entrant.
#pragma once

#include "core/base/settings.h"

inline constexpr int JORN_LOG_ERROR = 3; // syslog priorities
inline constexpr int JORN_LOG_INFO = 6;
inline constexpr int JORN_LOG_DEBUG = 7;

// Writes one line. `error_number` is 0 or an errno value whose text is added. The message is cut to
// 255 bytes. In the foreground with debugging on it goes to standard error, otherwise to syslog
// (which echoes it to standard error). Leaves errno as it was.
[[gnu::cold, gnu::format(printf, 5, 6)]] void jorn_log(int level, const char *function, int line,
                                                       int error_number, const char *format, ...);

inline bool jorn_log_enabled(int level) {
    return level != JORN_LOG_DEBUG || jorn_settings.debug != 0;
}

#define JORN_LOG_AS(level, function, error_number, ...)                                            \
    do {                                                                                           \
        if (jorn_log_enabled(level))                                                               \
            jorn_log(level, function, __LINE__, error_number, __VA_ARGS__);                        \
    } while (0)

#define JORN_ERROR(...) JORN_LOG_AS(JORN_LOG_ERROR, __func__, 0, __VA_ARGS__)
#define JORN_ERRNO(error_number, ...)                                                              \
    JORN_LOG_AS(JORN_LOG_ERROR, __func__, error_number, __VA_ARGS__)
#define JORN_INFO(...) JORN_LOG_AS(JORN_LOG_INFO, __func__, 0, __VA_ARGS__)
#define JORN_DEBUG(...) JORN_LOG_AS(JORN_LOG_DEBUG, __func__, 0, __VA_ARGS__)
