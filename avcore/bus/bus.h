// The message bus between access points: the daemons' socket on one side, TCP on the other.
//
// One loop owns it: it waits for `fd`, at the latest until `next_tick_ms`, then calls `serve`,
// which never blocks and does little at a time. Times are milliseconds of a clock that never goes
// back.
#pragma once

#include "avcore/bus/ground.h"
#include "avcore/bus/incoming.h"
#include "avcore/bus/local_server.h"
#include "avcore/bus/outgoing.h"
#include "avcore/bus/settings.h"

#include <functional>
#include <iosfwd>
#include <string>

namespace avcore {

class message_bus {
public:
    struct surroundings {
        std::string socket_path;
        // This access point's name, asked when it is needed; empty while it has none.
        std::function<std::string()> name;
        complaints::sayer say;
        local_server::teller delivered;
    };

    // Listens on both sides and says what is to be said about certificates or their want. Throws
    // std::runtime_error.
    message_bus(const bus_settings &settings, surroundings around);

    int fd() const { return ground_.poll.fd(); }
    void serve(int64_t now_ms);
    int64_t next_tick_ms() const { return next_tick_ms_; }

    // What it did and what was dropped, a line each.
    void report(std::ostream &out) const;

private:
    void remark_on_certificate();
    void take(const local_server::request &asked, int64_t now_ms);
    void add_peer(const bus_peer_named &named, int64_t now_ms);
    void publish(const bus_published &published, int64_t now_ms);
    void deliver(std::span<const std::byte> body, int64_t now_ms);
    void dispatch(const poller::event &event, int64_t now_ms);

    surroundings around_;
    bus_address address_;
    bool loopback_only_;
    bus_ground ground_;
    local_server local_;
    incoming incoming_;
    outgoing outgoing_;
    int64_t now_ms_ = 0;
    int64_t next_tick_ms_ = NEVER_MS;
};

} // namespace avcore
