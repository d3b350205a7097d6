// The clock of the daemon's own waits: it never goes back, whatever becomes of the time of day.
#pragma once

#include <cstdint>

int64_t monotonic_ms();
