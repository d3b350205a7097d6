// The clock of the daemon's own waits: it never goes back, whatever becomes of the time of day.
#pragma once

#include <cstdint>

int64_t monotonic_ms();

// The same to the kernel's tick, without a look at the hardware: for what each packet asks.
int64_t coarse_monotonic_ms();
