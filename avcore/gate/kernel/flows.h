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
    __type(value, struct gate_counter);
} flows SEC(".maps");

/* GATE_RECENT for each processor: whoever loads it makes it so large. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, GATE_RECENT);
    __type(key, __u32);
    __type(value, struct gate_recent);
} recent SEC(".maps");

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

static __always_inline bool are_same(const struct gate_flow *a, const struct gate_flow *b) {
    __u64 of_a[sizeof *a / 8];
    __u64 of_b[sizeof *b / 8];
    __builtin_memcpy(of_a, a, sizeof of_a);
    __builtin_memcpy(of_b, b, sizeof of_b);
    return ((of_a[4] ^ of_b[4]) | (of_a[3] ^ of_b[3]) | (of_a[2] ^ of_b[2]) | (of_a[1] ^ of_b[1]) |
            (of_a[0] ^ of_b[0])) == 0;
}

static __always_inline void add_to_flow(const struct gate_flow *flow,
                                        const struct gate_counter *seen) {
    struct gate_counter *counter = bpf_map_lookup_elem(&flows, flow);
    if (!counter && bpf_map_update_elem(&flows, flow, seen, BPF_NOEXIST) == 0)
        return;
    if (!counter)
        counter = bpf_map_lookup_elem(&flows, flow); /* another processor has just made it */
    if (!counter)
        return;
    for (int way = 0; way < 2; way++) {
        __sync_fetch_and_add(&counter->packets[way], seen->packets[way]);
        __sync_fetch_and_add(&counter->bytes[way], seen->bytes[way]);
    }
    __sync_fetch_and_add(&counter->denied, seen->denied);
    __sync_fetch_and_add(&counter->limited, seen->limited);
}

#define COMPILER_BARRIER() asm volatile("" ::: "memory")

static __always_inline void look_up(const struct gate_flow *flow, struct gate_verdict *verdict) {
    const struct gate_verdict none = {};
    const struct gate_verdict *found = bpf_map_lookup_elem(&verdicts, flow);
    *verdict = found ? *found : none;
}

static __noinline void take_to_hand(struct gate_recent *place, const struct gate_flow *flow,
                                    __u64 now, struct gate_verdict *verdict) {
    const struct gate_counter nothing = {};
    const struct gate_counter *seen = &place->counter;
    place->taken++;
    COMPILER_BARRIER();
    if (seen->packets[GATE_UP] | seen->packets[GATE_DOWN] | seen->denied | seen->limited) {
        add_to_flow(&place->flow, seen);
        place->counter = nothing;
    }
    look_up(flow, verdict);
    place->flow = *flow;
    place->verdict = *verdict;
    place->looked_up = now;
    COMPILER_BARRIER();
    place->taken++;
}

/* The packet's verdict, action 0 being none, and where it counts. On kernels whose network code can
 * be preempted (PREEMPT_RT) another packet may take the place at any moment: `taken` shows that,
 * and then the verdict is looked up, and the packet counts nowhere. */
static __always_inline struct gate_recent *at_hand(const struct packet *packet,
                                                   const struct gate_settings *set,
                                                   struct gate_verdict *verdict) {
    const __u64 now = (__u64)set->changes << 32 | (__u32)packet->here->tick;
    const __u32 index = (__u32)packet->here->recent + gate_place(&packet->flow);
    struct gate_recent *place = bpf_map_lookup_elem(&recent, &index);
    if (!place) {
        look_up(&packet->flow, verdict);
        return NULL;
    }
    const __u64 taken = place->taken;
    COMPILER_BARRIER();
    if (taken % 2 == 0) {
        if (place->looked_up != now || !are_same(&place->flow, &packet->flow)) {
            take_to_hand(place, &packet->flow, now, verdict);
            return place;
        }
        *verdict = place->verdict;
        COMPILER_BARRIER();
        if (place->taken == taken)
            return place;
    }
    look_up(&packet->flow, verdict);
    return NULL;
}

static __always_inline void count_passed(struct gate_counter *counter, struct __sk_buff *skb,
                                         const struct packet *packet) {
    if (!counter)
        return;
    const __u32 way = packet->direction == GATE_UP ? GATE_UP : GATE_DOWN;
    counter->packets[way] += packet->segments;
    counter->bytes[way] += frame_bytes(skb, packet);
}
