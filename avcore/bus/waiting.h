// Messages that can't be handed on now. A few wait, the newest win, and none waits for long: names
// of a station that came half a minute ago help nobody.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace avcore {

struct waiting_message {
    std::vector<std::byte> bytes;
    int64_t since_ms = 0;
};

struct waiting_drops {
    uint64_t crowded_out = 0;
    uint64_t too_old = 0;
};

class waiting_messages {
public:
    static constexpr size_t MAX = 16;
    static constexpr int64_t MAX_AGE_MS = 30'000;

    // `drops` outlives it.
    explicit waiting_messages(waiting_drops &drops) : drops_(&drops) {}

    // Joins behind those that wait as long. When there are too many, the oldest gives way, or, when
    // part of that has left already, the one behind it.
    void add(waiting_message message, bool first_is_leaving = false);
    // Returns whether the first message was among the dropped.
    bool drop_old(int64_t now_ms);
    std::optional<int64_t> next_drop_ms() const;

    bool empty() const { return messages_.empty(); }
    size_t size() const { return messages_.size(); }
    const waiting_message &first() const { return messages_.front(); }
    void pop() { messages_.pop_front(); }

    // Removes and returns those that `wanted` accepts, in their order.
    template <typename Wanted>
    std::vector<waiting_message> take(const Wanted &wanted) {
        std::vector<waiting_message> taken;
        std::erase_if(messages_, [&](waiting_message &message) {
            const bool leaves = wanted(message);
            if (leaves)
                taken.push_back(std::move(message));
            return leaves;
        });
        return taken;
    }

private:
    waiting_drops *drops_;
    std::deque<waiting_message> messages_;
};

} // namespace avcore
