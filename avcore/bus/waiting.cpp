#include "avcore/bus/waiting.h"

#include <algorithm>

namespace avcore {

void waiting_messages::add(waiting_message message, bool first_is_leaving) {
    const auto place = std::upper_bound(
        messages_.begin(), messages_.end(), message.since_ms,
        [](int64_t since_ms, const waiting_message &other) { return since_ms < other.since_ms; });
    messages_.insert(place, std::move(message));
    if (messages_.size() > MAX) {
        messages_.erase(messages_.begin() + (first_is_leaving ? 1 : 0));
        ++drops_->crowded_out;
    }
}

bool waiting_messages::drop_old(int64_t now_ms) {
    bool dropped = false;
    while (!messages_.empty() && now_ms - messages_.front().since_ms >= MAX_AGE_MS) {
        messages_.pop_front();
        ++drops_->too_old;
        dropped = true;
    }
    return dropped;
}

std::optional<int64_t> waiting_messages::next_drop_ms() const {
    if (messages_.empty())
        return std::nullopt;
    return messages_.front().since_ms + MAX_AGE_MS;
}

} // namespace avcore
