#include "core/base/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>

namespace {

[[gnu::format(printf, 5, 0)]] void write_line(int level, const char *function, int line,
                                              int error_number, const char *format,
                                              va_list arguments) {
    if (!jorn_log_enabled(level))
        return;
    const int saved_errno = errno;

    char message[256];
    vsnprintf(message, sizeof message, format, arguments);

    const daemon_settings &settings = jorn_settings;
    if (settings.daemonize == 0 && settings.debug != 0) {
        fprintf(stderr, "%s: %d: %d (%s) %s \n", function, line, error_number,
                error_number != 0 ? strerror(error_number) : "Debug", message);
    } else if (error_number != 0) {
        syslog(level, "%s: %d: %d (%s) %s", function, line, error_number, strerror(error_number),
               message);
    } else {
        syslog(level, "%s: %d: %s", function, line, message);
    }
    errno = saved_errno;
}

} // namespace

void jorn_log(int level, const char *function, int line, int error_number, const char *format,
              ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(level, function, line, error_number, format, arguments);
    va_end(arguments);
}

void jorn_say(int level, const char *function, int line, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(level, function, line, 0, format, arguments);
    va_end(arguments);
}
