// What the TOML's [enforce] says: how verdicts are enforced.
#pragma once

#include <cstdint>

namespace avcore {

// What holds for the whole gate, whoever runs.
struct gate_rules {
    bool fail_closed = false;
    uint32_t copies_per_second = 500; // of each client, in each direction
    bool pass_tags = false;           // frames with more VLAN tags than the gate walks over
    bool drop_fragments = false;      // of clients
    bool drop_excess = false;         // a client's packets without a verdict, beyond its copies
    bool hold_undecided = false;      // clients' packets wait for their flow's first verdict
    uint32_t holds_per_second = 500;  // of each client
};

struct enforce_settings {
    enum class sharing {
        application, // one limit for all flows of a client's application
        flow,        // each flow has its own
        client,      // one for all flows of a client that have the same pair of limits
    };
    enum class shaping {
        drop, // what exceeds a limit
        htb,  // towards the client it waits in a queue
    };

    bool reset = false; // a denied TCP flow is reset on both sides
    sharing share = sharing::application;
    uint64_t bytes_per_rate_unit = 125; // a second; the controller's unit is kbit/s
    shaping shape = shaping::drop;
    gate_rules rules;
};

} // namespace avcore
