// The daemon's state, settings and platform as they are before its start.
#pragma once

#include "core/base/settings.h"
#include "core/state/state.h"
#include "support/fake_platform.h"

#include <syslog.h>

inline void fresh_state() {
    jorn_state = {};
    jorn_settings = {};
    platform = {};
}

// Log lines go nowhere; with debugging they are formatted before.
inline void silence_log(uint8_t debug = 0) {
    jorn_settings.daemonize = 1;
    jorn_settings.debug = debug;
    setlogmask(LOG_MASK(LOG_EMERG));
}
