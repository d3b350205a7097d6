// What docs/inline.md promises about the gate, said once more without its ways to be fast: nothing
// is parsed, nothing at hand. Whoever made a frame says what it is; the model says what becomes of
// it.
#pragma once

#include "avcore/records/gate_records.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>

struct by_bytes {
    template <typename record>
    bool operator()(const record &a, const record &b) const {
        return memcmp(&a, &b, sizeof a) < 0;
    }
};

// What stands for the later fragments between a flow's ends.
inline gate_flow fragments_of(gate_flow flow) {
    flow.client_port_be = flow.server_port_be = 0;
    flow.proto = 0;
    flow.fragments = 1;
    return flow;
}

struct made_packet {
    gate_flow flow = {};
    gate_direction way = GATE_UP;
    gate_count nature = GATE_COUNT_UNDECIDED; // or what it is whatever its flow's verdict says
    bool is_error = false;                    // of ICMP or ICMPv6;
    std::optional<gate_flow> quoted;          // and whose packet it shows
    bool first_fragment = false;
    bool extended = false; // IPv6 with extension headers
    bool is_v6 = false;
    bool to_group = false;
    uint8_t tcp_flags = 0;
    bool has_data = true;
    uint8_t traffic_class = 0;
    gate_client client = {};
    uint32_t if_index = 0;
    uint32_t mark = 0;
    uint32_t priority = 0;
    uint32_t segments = 1; // on the wire,
    uint32_t segment_size = 0;
    uint32_t length = 0; // as the gate sees it, in bytes of the frame,
    uint64_t frame_bytes = 0;
    uint64_t ip_bytes = 0; // and on the wire
};

struct packet_fate {
    bool passes = false;
    bool is_reset = false; // what passes is the receiver's RST
    bool is_held = false;
    uint32_t captured = 0; // of its copy; 0: there is none
    uint8_t traffic_class = 0;
    uint32_t mark = 0;
    uint32_t priority = 0;
    std::array<uint64_t, GATE_COUNTS> counts = {};
};

class gate_model {
public:
    struct bucket {
        __int128 level = 0; // thousand millionths
        uint64_t filled_ns = 0;
    };
    struct client_state {
        bucket copies[2], always, held;
    };
    struct flow_state {
        gate_counter counter = {};
        uint8_t astray = 0;
    };

    gate_settings settings = {};
    uint64_t now_ns = 0;
    uint64_t tick_ns = 0;   // now, or by as much as a tick before: the processor's last look
    uint32_t ring_room = 0; // bytes
    std::map<gate_flow, gate_verdict, by_bytes> verdicts;
    std::map<gate_flow, flow_state, by_bytes> flows;
    std::map<gate_client, client_state, by_bytes> clients;
    std::map<gate_flow, gate_hold, by_bytes> holds;
    std::map<uint32_t, gate_limit> limits;
    std::map<uint32_t, bucket> buckets;

    packet_fate fate_of(const made_packet &packet);

private:
    made_packet packet_;
    packet_fate fate_;
    bool attended_ = false;
    bool back_ = false;

    void count(gate_count what, uint64_t by = 1) { fate_.counts[what] += by; }
    void pass(gate_count why);
    void drop(gate_count why);
    bool rule(gate_rule bit) const { return (settings.rules & bit) != 0; }
    gate_count nature() const;
    void open();
    void judge();
    void deny(const gate_verdict &verdict);
    void allow(const gate_verdict &verdict);
    void always();
    void error();
    void later_fragment();
    bool waits_for_others(const gate_verdict *verdict) const;
    void hold(bool judged);
    void come_back();
    bool ask(const gate_verdict *verdict);
    bool shows_names() const;
    bool goes_astray(const gate_verdict &verdict);
    bool send_up(uint32_t size);
    bool take_turn(const gate_verdict &verdict);
    flow_state &flow_of_packet();
    void count_passed();
    static bool take(bucket &from, uint64_t a_second, uint64_t burst, uint64_t cost, uint64_t now);
};
