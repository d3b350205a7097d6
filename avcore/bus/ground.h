// What the parts of the bus stand on together: whom they wait with, what they count, whom they
// tell.
#pragma once

#include "avcore/base/monotonic_clock.h"
#include "avcore/bus/handshake_gate.h"
#include "avcore/bus/poller.h"
#include "avcore/bus/tls.h"
#include "avcore/bus/waiting.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace avcore {

struct bus_counts {
    uint64_t published = 0; // by the daemon, towards a peer that it had named
    uint64_t sent = 0;      // taken by the kernel
    uint64_t received = 0;
    uint64_t delivered = 0; // to the daemon
    waiting_drops outgoing;
    waiting_drops local;
    uint64_t with_forgotten_peers = 0; // waited for peers that had to give way
    uint64_t unknown_peer = 0;
    uint64_t own_name = 0;
    uint64_t nameless = 0; // while there was no base MAC
    uint64_t refused_addresses = 0;
    uint64_t malformed_datagrams = 0;
    uint64_t unauthenticated = 0; // connections that didn't say in time who they are
    uint64_t gave_way = 0;        // connections
    uint64_t bad_lengths = 0;
    uint64_t refused = 0; // connections: handshake or sender
    uint64_t unsaid = 0;  // lines
};

// Lines for whoever runs avcore. Peers cause them and can repeat the cause at will: the same line
// comes once in half a minute, and in that time there are only so many.
class complaints {
public:
    using sayer = std::function<void(const std::string &line)>;

    explicit complaints(sayer say) : say_(std::move(say)) {}

    void tell(const std::string &line, int64_t now_ms, uint64_t &unsaid);

private:
    static constexpr size_t MAX_LINES = 64;
    static constexpr int64_t REPEAT_MS = 30'000;

    sayer say_;
    std::map<std::string, int64_t> told_;
};

struct bus_ground {
    explicit bus_ground(complaints::sayer say) : lines(std::move(say)) {}

    poller poll;
    handshake_gate gate;
    std::unique_ptr<tls_identity> tls; // null: the bus is open
    bus_counts counts;
    complaints lines;
    bool step_taken = false; // of a handshake, in this turn: the next one waits for the next turn

    void complain(const std::string &line, int64_t now_ms) {
        lines.tell(line, now_ms, counts.unsaid);
    }
};

} // namespace avcore
