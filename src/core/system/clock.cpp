#include "core/system/clock.h"

#include <ctime>

namespace {

int64_t read_ms(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

} // namespace

int64_t monotonic_ms() {
    return read_ms(CLOCK_MONOTONIC);
}

int64_t coarse_monotonic_ms() {
    return read_ms(CLOCK_MONOTONIC_COARSE);
}
