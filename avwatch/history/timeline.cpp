#include "avwatch/history/timeline.h"

#include <algorithm>

namespace avwatch {

timeline::present timeline::at(int64_t wall_s, int64_t monotonic_ms) {
    constexpr int64_t doubt_s = DOUBT_MS / 1'000;
    const int64_t minute_s = std::max<int64_t>(wall_s - wall_s % MINUTE_S, 0);
    if (latest_s_ != 0 && minute_s > latest_s_ + doubt_s)
        doubted_until_ms_ = monotonic_ms + DOUBT_MS;
    const bool is_believed = monotonic_ms >= doubted_until_ms_;
    if (minute_s >= latest_s_ - doubt_s) {
        behind_since_ms_ = -1;
        return {std::max(minute_s, latest_s_), is_believed, false};
    }
    if (behind_since_ms_ < 0)
        behind_since_ms_ = monotonic_ms;
    if (monotonic_ms - behind_since_ms_ < DOUBT_MS)
        return {latest_s_, false, false};
    return {minute_s, is_believed, true};
}

} // namespace avwatch
