// A collector's end of the way: messages are queued and go as UDP datagrams, a few at a time so
// that no burst overruns a collector, and no call waits. A name is looked up by a thread, again and
// again, for it may move; until it is known the queue keeps what there is room for.
//
// A socket is a transport session (RFC 7011, section 10.3): it begins with templates and with
// sequence number 0. Another one is needed where the collector's address changes, or this
// machine's, by which the socket would go on to send for ever. An address that is still among those
// that the name has is kept.
//
// Nobody answers. That a datagram was refused there is told with a later one: it is counted, and
// said once, until there was no trouble for a while. While there is no way to the collector at all,
// messages wait, as without an address.
#pragma once

#include "avwatch/ipfix/messages.h"
#include "shared/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
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
    static constexpr int64_t AGAIN_MS = 1'000;  // where there was no way
    static constexpr int64_t CALM_MS = 60'000;  // without trouble it is over

    struct place {
        std::string target; // for people
        std::string host, port;
    };
    // What a session begins with, in front of what waits.
    using opening = std::function<std::vector<ipfix_message>()>;
    collector(place where, opening begin);
    ~collector();
    collector(const collector &) = delete;
    collector &operator=(const collector &) = delete;

    bool has_room(size_t messages) const { return queue_.size() + messages <= QUEUE_MAX; }
    // For which there has to be room.
    void send(std::vector<ipfix_message> messages);
    // Whether there is a way, as far as is known.
    bool is_open() const { return has_session() && !is_cut_off_; }
    // Whether what waits may be on its way soon.
    bool is_busy() const { return !queue_.empty() && (is_open() || looking_); }

    int descriptor() const; // can be read when a name has been looked up
    int64_t due_ms() const;
    void serve(int64_t now_ms);

    uint64_t sent() const { return sent_; }
    uint64_t failed() const { return failed_; }

private:
    struct look_up; // shared with the thread

    bool has_session() const { return socket_.valid(); }
    void begin_look_up(int64_t now_ms);
    void end_look_up(int64_t now_ms);
    bool open(const std::vector<char> &address);
    bool send_one(ipfix_message &message, int64_t now_ms); // false: it has to wait
    void note_trouble(const std::string &why, int64_t now_ms);

    const place where_;
    const opening begin_;
    std::deque<ipfix_message> queue_;
    std::shared_ptr<look_up> looking_; // null: not now
    std::vector<char> address_;        // a sockaddr; empty: not known yet
    unique_fd socket_;
    bool is_cut_off_ = false; // nothing could be sent the last time
    uint32_t sequence_ = 0;
    int64_t send_due_ms_ = 0;
    int64_t look_up_due_ms_ = 0;
    uint64_t sent_ = 0, failed_ = 0;
    bool is_troubled_ = false;
    int64_t trouble_ms_ = 0; // the last one
};

} // namespace avwatch
