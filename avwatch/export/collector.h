// A collector's end of the way: messages are queued and go as UDP datagrams, a few at a time so
// that no burst overruns a collector, and no call waits. A name is looked up by a thread, again and
// again, for it may move; until it is known the queue keeps what there is room for.
//
// Nobody answers. That a datagram was refused there is told with a later one: it is counted, and
// said once.
#pragma once

#include "shared/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace avwatch {

class collector {
public:
    static constexpr size_t QUEUE_MAX = 4'096; // messages: all that a full gate has in some seconds
    static constexpr size_t AT_ONCE = 32;
    static constexpr int64_t PACE_MS = 10;
    static constexpr int64_t LOOK_UP_MS = 300'000;
    static constexpr int64_t RETRY_MS = 10'000; // to look up what wasn't found

    struct place {
        std::string target; // for people
        std::string host, port;
    };
    explicit collector(place where);
    ~collector();
    collector(const collector &) = delete;
    collector &operator=(const collector &) = delete;

    // For one more, and so many that are still to come.
    bool has_room(size_t others = 0) const { return queue_.size() + others < QUEUE_MAX; }
    // Those that have no room are dropped.
    void send(std::vector<std::string> messages);
    bool is_idle() const { return queue_.empty(); }

    int descriptor() const; // can be read when a name has been looked up
    int64_t due_ms() const;
    void serve(int64_t now_ms);

    uint64_t sent() const { return sent_; }
    uint64_t dropped() const { return dropped_; }
    uint64_t failed() const { return failed_; }

private:
    struct look_up; // shared with the thread

    void begin_look_up(int64_t now_ms);
    void end_look_up(int64_t now_ms);
    bool send_one(const std::string &message); // false: it has to wait
    void complain_once(const std::string &why);

    const place where_;
    std::deque<std::string> queue_;
    std::shared_ptr<look_up> looking_; // null: not now
    std::vector<char> address_;        // a sockaddr; empty: not known yet
    unique_fd socket_;
    int64_t send_due_ms_ = 0;
    int64_t look_up_due_ms_ = 0;
    uint64_t sent_ = 0, dropped_ = 0, failed_ = 0;
    std::string complained_;
};

} // namespace avwatch
