// What the TOML's [enforce] says: how verdicts are enforced.
#pragma once

#include "avcore/gate/gate.h"

#include <cstdint>

namespace avcore {

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
