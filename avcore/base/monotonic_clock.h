// The clock that never goes back, which the kernel stamps the gate's records with, too.
#pragma once

#include <cstdint>
#include <ctime>
#include <limits>

namespace avcore {

inline uint64_t monotonic_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

inline int64_t monotonic_ms() {
    return static_cast<int64_t>(monotonic_ns() / 1'000'000);
}

// How far the wall's clock is ahead of it, in microseconds.
inline int64_t wall_ahead_us() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t wall_us = int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000;
    return wall_us - static_cast<int64_t>(monotonic_ns() / 1'000);
}

// When something is due that isn't.
inline constexpr int64_t NEVER_MS = std::numeric_limits<int64_t>::max();

} // namespace avcore
