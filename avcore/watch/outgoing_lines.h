// What waits for a reader of the watch socket: the messages that are made, which the socket takes
// next, and behind them events, as many as there is room for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace avcore {

class outgoing_lines {
public:
    static constexpr size_t MAX_LINE = 65'536;    // with its end
    static constexpr size_t MAX_EVENTS = 262'144; // bytes

    // To be appended to, a line at a time. Only while there is room for more.
    std::string &made() { return made_; }
    bool has_room() const { return made_.size() - sent_ < ENOUGH; }

    // `id`: of the follow whose event it is.
    void add_event(uint32_t id, std::string event);
    // Whether the next one is lost whatever it says; `lose_event` then needs none.
    bool loses_events() const { return lost_ > 0; }
    void lose_event(uint32_t id);
    void forget_events();
    // Moves some of them behind what is made. False: there are none.
    bool make_events();
    bool has_events() const { return !events_.empty() || lost_ > 0; }

    // Sends what the socket takes. False: the reader is gone.
    bool send_to(int fd);
    bool is_empty() const { return sent_ == made_.size(); }

private:
    static constexpr size_t ENOUGH = 16'384;

    std::string made_;
    size_t sent_ = 0; // of it
    std::deque<std::string> events_;
    size_t event_bytes_ = 0;
    uint64_t lost_ = 0;    // events, since the last one that is in the queue
    uint32_t lost_by_ = 0; // id of their follow
};

} // namespace avcore
