#include "avcore/bus/handshake_gate.h"

#include <algorithm>

namespace avcore {
namespace {

constexpr int64_t WINDOW_MS = 1'000;

} // namespace

bool handshake_gate::start(direction which, const std::string &address, int64_t now_ms) {
    while (!last_second_.empty() && now_ms - last_second_.front().at_ms >= WINDOW_MS)
        last_second_.pop_front();
    if (opens_ms(which, now_ms) > now_ms)
        return false;
    last_second_.push_back({which, address, now_ms});
    return true;
}

bool handshake_gate::seen(const std::string &address) const {
    return std::any_of(last_second_.begin(), last_second_.end(),
                       [&](const begun &each) { return each.address == address; });
}

int64_t handshake_gate::opens_ms(direction which, int64_t now_ms) const {
    int64_t opens_ms = now_ms;
    size_t all = 0;
    size_t same = 0;
    for (auto each = last_second_.rbegin(); each != last_second_.rend(); ++each) {
        ++all;
        same += each->which == which ? 1 : 0;
        if (all == MAX_A_SECOND || (each->which == which && same == MAX_OF_ONE_DIRECTION))
            opens_ms = std::max(opens_ms, each->at_ms + WINDOW_MS);
    }
    return opens_ms;
}

} // namespace avcore
