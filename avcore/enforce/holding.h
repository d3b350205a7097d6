// Holds what the gate takes of flows without a verdict, and lets it go when the first one is there.
#pragma once

#include "avcore/enforce/held_packets.h"
#include "avcore/gate/gate.h"
#include "avcore/records/enforce_settings.h"

#include <cstdint>
#include <span>

namespace avcore {

class holding {
public:
    // Both outlive it; the settings may change.
    holding(gate &gate, const enforce_settings &settings)
        : gate_(gate),
          settings_(settings),
          packets_([this](const held_packet &packet) { put_back(packet); }) {}
    ~holding(); // as if the time of all that waits were over

    // What the gate took. False: its time was over before it was seen, so there is nothing to ask.
    bool take(const gate_copy &head, std::span<const uint8_t> frame, int64_t now_ms);

    bool waits(const gate_flow &flow) const { return packets_.waits(flow); }
    bool goes_on(const gate_flow &flow) const {
        return packets_.knows(flow) && !packets_.waits(flow);
    }
    // Has the gate do as the verdict says, and lets go what waits for it; the gate judges that,
    // too. False when the kernel refuses the verdict.
    bool decide(const gate_flow &flow, const gate_verdict &verdict, int64_t now_ms);

    void tick(int64_t now_ms);
    int64_t next_tick_ms() const { return packets_.next_due_ms(); }

private:
    void put_back(const held_packet &packet);
    void let_pass(const gate_flow &flow, int64_t now_ms);

    gate &gate_;
    const enforce_settings &settings_;
    held_packets packets_;
};

} // namespace avcore
