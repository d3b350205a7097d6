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

// Where a line of the log comes from: a function of the system's interface, and the line of the
// code that speaks for it. What serves several such functions takes the origin from its caller.
struct log_origin {
    const char *function;
    int line;
};
#define JORN_HERE (log_origin{__func__, __LINE__})

#define JORN_LOG(level, origin, error_number, ...)                                                 \
    do {                                                                                           \
        if (jorn_log_enabled(level)) {                                                             \
            const log_origin jorn_origin = origin;                                                 \
            jorn_log(level, jorn_origin.function, jorn_origin.line, error_number, __VA_ARGS__);    \
        }                                                                                          \
    } while (0)

// The calling function's own lines.
#define JORN_ERROR(...) JORN_LOG(JORN_LOG_ERROR, JORN_HERE, 0, __VA_ARGS__)
#define JORN_ERRNO(error_number, ...) JORN_LOG(JORN_LOG_ERROR, JORN_HERE, error_number, __VA_ARGS__)
#define JORN_INFO(...) JORN_LOG(JORN_LOG_INFO, JORN_HERE, 0, __VA_ARGS__)
#define JORN_DEBUG(...) JORN_LOG(JORN_LOG_DEBUG, JORN_HERE, 0, __VA_ARGS__)

// A part of a function of the interface speaks in its name.
#define JORN_AS(function) (log_origin{function, __LINE__})
#define JORN_ERROR_AS(function, ...) JORN_LOG(JORN_LOG_ERROR, JORN_AS(function), 0, __VA_ARGS__)
#define JORN_ERRNO_AS(function, error_number, ...)                                                 \
    JORN_LOG(JORN_LOG_ERROR, JORN_AS(function), error_number, __VA_ARGS__)
#define JORN_INFO_AS(function, ...) JORN_LOG(JORN_LOG_INFO, JORN_AS(function), 0, __VA_ARGS__)
#define JORN_DEBUG_AS(function, ...) JORN_LOG(JORN_LOG_DEBUG, JORN_AS(function), 0, __VA_ARGS__)
