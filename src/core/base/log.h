// The daemon's one way of reporting: a line with a level, the calling function's name, the number
// of the line that says it and an error number.
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

// The same without an error number, which few lines have: what is left fits into the registers of a
// call, and there are hundreds of them.
[[gnu::cold, gnu::format(printf, 4, 5)]] void jorn_say(int level, const char *function, int line,
                                                       const char *format, ...);

inline bool jorn_log_enabled(int level) {
    return level != JORN_LOG_DEBUG || __builtin_expect(jorn_settings.debug, 0) != 0;
}

// Under whose name a line stands in the log: a function of the system's interface. What serves
// several such functions takes the name from its caller; the line's number is that of its text.
struct log_origin {
    const char *function;
};
#define JORN_HERE (log_origin{__func__})

#define JORN_LOG(level, origin, error_number, ...)                                                 \
    do {                                                                                           \
        if (jorn_log_enabled(level))                                                               \
            jorn_log(level, (origin).function, __LINE__, error_number, __VA_ARGS__);               \
    } while (0)
#define JORN_SAY(level, origin, ...)                                                               \
    do {                                                                                           \
        if (jorn_log_enabled(level))                                                               \
            jorn_say(level, (origin).function, __LINE__, __VA_ARGS__);                             \
    } while (0)

// The calling function's own lines.
#define JORN_ERROR(...) JORN_SAY(JORN_LOG_ERROR, JORN_HERE, __VA_ARGS__)
#define JORN_ERRNO(error_number, ...) JORN_LOG(JORN_LOG_ERROR, JORN_HERE, error_number, __VA_ARGS__)
#define JORN_INFO(...) JORN_SAY(JORN_LOG_INFO, JORN_HERE, __VA_ARGS__)
#define JORN_DEBUG(...) JORN_SAY(JORN_LOG_DEBUG, JORN_HERE, __VA_ARGS__)

// A part of a function of the interface speaks in its name.
#define JORN_AS(function) (log_origin{function})
#define JORN_ERROR_AS(function, ...) JORN_SAY(JORN_LOG_ERROR, JORN_AS(function), __VA_ARGS__)
#define JORN_ERRNO_AS(function, error_number, ...)                                                 \
    JORN_LOG(JORN_LOG_ERROR, JORN_AS(function), error_number, __VA_ARGS__)
#define JORN_INFO_AS(function, ...) JORN_SAY(JORN_LOG_INFO, JORN_AS(function), __VA_ARGS__)
#define JORN_DEBUG_AS(function, ...) JORN_SAY(JORN_LOG_DEBUG, JORN_AS(function), __VA_ARGS__)

// A text that stands in a table, or is handed on, with the line where it stands.
struct log_text {
    const char *text; // none = nothing is said
    int line;
    constexpr log_text(const char *said, int at = __builtin_LINE()) : text(said), line(at) {}
};

inline void jorn_log_text(int level, log_origin from, int error_number, const log_text &said) {
    if (said.text != nullptr && jorn_log_enabled(level))
        jorn_log(level, from.function, said.line, error_number, "%s", said.text);
}
