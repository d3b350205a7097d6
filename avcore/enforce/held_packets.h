// Clients' packets that wait for their flow's first verdict, each flow's in their order. What comes
// of a flow that was let go a moment ago goes on at once, behind the others.
#pragma once

#include "avcore/base/loop.h"
#include "avcore/frames/frame.h"
#include "avcore/records/gate_records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <utility>
#include <vector>

namespace avcore {

struct held_packet {
    gate_copy head;
    std::vector<uint8_t> frame;
};

// How many packets of the wire it stands for.
uint32_t pieces_of(const gate_copy &head);
// When its time is over without a verdict.
int64_t due_ms_of(const gate_copy &head);

class held_packets {
public:
    static constexpr size_t CLIENT_PACKETS = 256; // as on the wire
    static constexpr size_t CLIENT_BYTES = size_t{1} << 20;
    static constexpr size_t ALL_PACKETS = 4'096;
    static constexpr size_t ALL_BYTES = size_t{16} << 20;
    static constexpr int64_t WAIT_MS =
        GATE_WAIT_NS / 1'000'000; // for a verdict, since the gate took the packet
    // As long later packets are expected behind: the gate sends none after a second, and the last
    // ones have to come out of the ring.
    static constexpr int64_t BEHIND_MS = 1'500;

    using put_back_function = std::function<void(const held_packet &)>;
    explicit held_packets(put_back_function put_back) : put_back_(std::move(put_back)) {}

    // False: there are too many, of its client or of all.
    bool add(const gate_copy &head, std::span<const uint8_t> frame);

    bool waits(const gate_flow &flow) const;
    bool knows(const gate_flow &flow) const; // it waits, or was let go a moment ago
    // Its packets go on, also those that are only to come. `verdict` is what holds of it when its
    // time is over.
    void let_go(const gate_flow &flow, const gate_verdict &verdict, int64_t now_ms);

    // A flow whose time is over: one that waits has a packet for which no verdict came, of any
    // other all are back.
    std::optional<gate_flow> first_overdue(int64_t now_ms) const;
    int64_t next_due_ms() const { return due_.empty() ? NEVER_MS : due_.begin()->first; }
    // Returns how many packets of the wire those are.
    uint64_t drop_overdue(const gate_flow &flow, int64_t now_ms);
    // Of one that was let go. Returns what holds of it.
    gate_verdict forget(const gate_flow &flow);

private:
    using flow_words = std::array<uint64_t, sizeof(gate_flow) / sizeof(uint64_t)>;
    struct flow_state {
        std::deque<held_packet> waiting;
        bool is_let_go = false;
        gate_verdict verdict = {}; // then
        int64_t due_ms = 0;
    };
    struct amount {
        size_t packets = 0;
        size_t bytes = 0;
    };
    using flow_map = std::map<flow_words, flow_state>;

    static flow_words words_of(const gate_flow &flow);
    void set_due(flow_map::iterator flow, int64_t due_ms);
    void erase(flow_map::iterator flow);
    held_packet take_first(flow_state &state);

    put_back_function put_back_;
    flow_map flows_;
    std::set<std::pair<int64_t, flow_words>> due_;
    std::map<mac_address, amount> clients_;
    amount all_;
};

} // namespace avcore
