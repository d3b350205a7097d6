/* The flows' verdicts, and what they have sent. */
#pragma once

#include "avcore/gate/kernel/packet.h"

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, GATE_FLOWS);
    __type(key, struct gate_flow);
    __type(value, struct gate_verdict);
} verdicts SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, GATE_FLOWS);
    __type(key, struct gate_flow);
    __type(value, struct gate_flow_state);
} flows SEC(".maps");

static __always_inline void count_segments(struct __sk_buff *skb, struct packet *packet) {
    packet->segments = 1;
    if (!skb->gso_size || packet->headers == 0 || packet->end <= packet->headers)
        return;
    packet->segments = skb->gso_segs;
    if (!packet->segments)
        packet->segments = (packet->end - packet->headers + skb->gso_size - 1) / skb->gso_size;
}

static __always_inline __u64 frame_bytes(struct __sk_buff *skb, const struct packet *packet) {
    return skb->len + (__u64)(packet->segments - 1) * packet->headers;
}

static __always_inline __u64 ip_bytes(const struct packet *packet) {
    return packet->end - packet->network +
           (__u64)(packet->segments - 1) * (packet->headers - packet->network);
}

static __always_inline struct gate_flow_state *state_of(const struct packet *packet,
                                                        const struct gate_settings *set) {
    const __u64 now = (__u64)set->changes << 32 | (__u32)packet->here->tick;
    struct gate_flow_state *state = bpf_map_lookup_elem(&flows, &packet->flow);
    if (!state) {
        const struct gate_flow_state unseen = {.looked_up = ~now};
        bpf_map_update_elem(&flows, &packet->flow, &unseen, BPF_NOEXIST);
        state = bpf_map_lookup_elem(&flows, &packet->flow);
    }
    if (!state || state->looked_up == now)
        return state;
    const struct gate_verdict *verdict = bpf_map_lookup_elem(&verdicts, &packet->flow);
    const struct gate_verdict none = {};
    state->verdict = verdict ? *verdict : none;
    state->looked_up = now;
    return state;
}

static __always_inline void count_passed(struct gate_counter *counter, struct __sk_buff *skb,
                                         const struct packet *packet) {
    if (!counter)
        return;
    const __u64 bytes = frame_bytes(skb, packet);
    if (packet->direction == GATE_UP) {
        __sync_fetch_and_add(&counter->packets[GATE_UP], packet->segments);
        __sync_fetch_and_add(&counter->bytes[GATE_UP], bytes);
    } else {
        __sync_fetch_and_add(&counter->packets[GATE_DOWN], packet->segments);
        __sync_fetch_and_add(&counter->bytes[GATE_DOWN], bytes);
    }
}
