/* The flows' verdicts, and what is known of their packets. */
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
    __type(value, struct gate_flow_record);
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

/* Made where there is none. */
static __always_inline struct gate_flow_record *record_of(const struct gate_flow *flow,
                                                          struct gate_processor *here) {
    struct gate_flow_record *record = bpf_map_lookup_elem(&flows, flow);
    if (record)
        return record;
    struct gate_flow_record begun = {.begun_ns = monotonic_now()};
    begun.last_ns = begun.begun_ns;
    if (bpf_map_update_elem(&flows, flow, &begun, BPF_NOEXIST) == 0)
        here->counts[GATE_COUNT_FLOWS]++;
    return bpf_map_lookup_elem(&flows, flow); /* perhaps another processor's, just made */
}

static __always_inline void move_counts(struct gate_recent *place,
                                        struct gate_flow_record *record) {
    const struct gate_counter nothing = {};
    const struct gate_counter *seen = &place->counter;
    for (int way = 0; way < 2; way++) {
        __sync_fetch_and_add(&record->counter.packets[way], seen->packets[way]);
        __sync_fetch_and_add(&record->counter.bytes[way], seen->bytes[way]);
    }
    __sync_fetch_and_add(&record->counter.denied, seen->denied);
    __sync_fetch_and_add(&record->counter.limited, seen->limited);
    place->counter = nothing;
}

#define COMPILER_BARRIER() asm volatile("" ::: "memory")

static __always_inline void look_up(const struct gate_flow *flow, struct gate_verdict *verdict) {
    const struct gate_verdict none = {};
    const struct gate_verdict *found = bpf_map_lookup_elem(&verdicts, flow);
    *verdict = found ? *found : none;
}

static __noinline void take_to_hand(struct gate_recent *place, const struct packet *packet,
                                    __u64 now, struct gate_verdict *verdict) {
    const struct gate_counter *seen = &place->counter;
    place->taken++;
    COMPILER_BARRIER();
    if (!are_same(&place->flow, &packet->flow)) {
        if (seen->packets[GATE_UP] | seen->packets[GATE_DOWN] | seen->denied | seen->limited) {
            struct gate_flow_record *record = record_of(&place->flow, packet->here);
            if (record)
                move_counts(place, record);
        }
        place->flow = packet->flow;
    }
    look_up(&packet->flow, verdict);
    place->verdict = *verdict;
    place->looked_up = now;
    place->noted = 0;
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
    const __u32 taken = place->taken;
    COMPILER_BARRIER();
    if (taken % 2 == 0) {
        if (place->looked_up != now || !are_same(&place->flow, &packet->flow)) {
            take_to_hand(place, packet, now, verdict);
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

/* Ends of a connection, and what asks for one. */
static __always_inline bool is_turn(const struct packet *packet) {
    const __u8 flags = packet->tcp_flags;
    return (flags & (TCP_FIN | TCP_SYN | TCP_RST)) && (flags & SYN_ACK) != SYN_ACK;
}

static __always_inline bool comes_again(const struct packet *packet,
                                        const struct gate_flow_record *record, __u64 now) {
    const bool asks = packet->direction == GATE_UP && (packet->tcp_flags & SYN_ACK) == TCP_SYN;
    const bool has_ended = record->fin[GATE_UP] || record->fin[GATE_DOWN] || record->reset;
    return (asks && has_ended) || (__s64)(now - record->last_ns) > (__s64)GATE_IDLE_NS;
}

/* The exact time, by which flows of one tick are told apart. What another processor has at hand, a
 * tick's packets, counts for the new flow; two that begin it at once take two snapshots. */
static __always_inline void begin_again(struct gate_flow_record *record) {
    record->before = record->counter;
    record->begun_ns = record->last_ns = monotonic_now();
    record->fin[GATE_UP] = record->fin[GATE_DOWN] = record->reset = 0;
}

static __always_inline void note_client(struct __sk_buff *skb, const struct packet *packet,
                                        struct gate_flow_record *record) {
    const struct ethhdr *head = ethernet_of(skb);
    const bool up = packet->direction == GATE_UP;
    if (!head || (!up && record->if_index))
        return;
    if (up)
        __builtin_memcpy(record->mac, head->h_source, sizeof record->mac);
    else
        __builtin_memcpy(record->mac, head->h_dest, sizeof record->mac);
    record->if_index = skb->ifindex;
}

static __noinline void note(struct __sk_buff *skb, const struct packet *packet,
                            struct gate_recent *place, bool passes) {
    place->taken++;
    COMPILER_BARRIER();
    struct gate_flow_record *record = record_of(&packet->flow, packet->here);
    if (record) {
        const __u64 now = packet->here->now_ns;
        move_counts(place, record);
        if (comes_again(packet, record, now))
            begin_again(record);
        if ((__s64)(now - record->last_ns) > 0)
            record->last_ns = now;
        note_client(skb, packet, record);
        if (passes && (packet->tcp_flags & TCP_RST))
            record->reset = 1;
        if (passes && (packet->tcp_flags & TCP_FIN))
            record->fin[packet->direction == GATE_UP ? GATE_UP : GATE_DOWN] = 1;
    }
    place->noted = 1;
    COMPILER_BARRIER();
    place->taken++;
}

/* Where the packet counts. `passes`: it isn't dropped. */
static __always_inline struct gate_counter *counter_for(struct __sk_buff *skb,
                                                        const struct packet *packet,
                                                        struct gate_recent *place, bool passes) {
    if (!place)
        return NULL;
    if (!place->noted || is_turn(packet))
        note(skb, packet, place, passes);
    return &place->counter;
}

static __always_inline void count_passed(struct __sk_buff *skb, const struct packet *packet,
                                         struct gate_recent *place) {
    struct gate_counter *counter = counter_for(skb, packet, place, true);
    if (!counter)
        return;
    const __u32 way = packet->direction == GATE_UP ? GATE_UP : GATE_DOWN;
    counter->packets[way] += packet->segments;
    counter->bytes[way] += frame_bytes(skb, packet);
}
