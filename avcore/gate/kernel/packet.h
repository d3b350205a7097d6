/* What the steps of the program pass to each other about a packet, and what becomes of it. */
#pragma once

#include "avcore/gate/kernel/clock.h"
#include "avcore/records/gate_records.h"

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/ip.h>
#include <linux/ipv6.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>
#include <stdbool.h>
#include <stddef.h>

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct gate_processor);
} processors SEC(".maps");

struct tcp_header {
    __be16 source;
    __be16 dest;
    __be32 seq;
    __be32 ack;
    __u8 offset; /* in its upper half, in words */
    __u8 flags;
    __be16 window;
    __u16 check;
    __be16 urgent;
};
#define TCP_FIN 0x01
#define TCP_SYN 0x02
#define TCP_RST 0x04
#define TCP_ACK 0x10
#define SYN_ACK (TCP_SYN | TCP_ACK)

struct packet {
    struct gate_processor *here; /* the processor that is at it */
    struct gate_flow flow;
    __u32 network;   /* offsets in the frame: the IP header, */
    __u32 transport; /* what follows it, */
    __u32 end;       /* and the end, before any padding */
    __u32 segments;  /* on the wire; more than one of a GSO packet */
    __u32 headers;   /* from the frame's first byte to the payload, of each segment */
    __u8 direction;
    __u8 first_fragment;
    __u8 extended; /* IPv6 with extension headers */
    __u8 is_ipv6;
    __u8 traffic_class __attribute__((aligned(8))); /* of the word that is blurred */
    __u8 tcp_flags;
    __u8 is_error; /* of ICMP or ICMPv6: it quotes a packet of the other direction */
    __u8 is_back;  /* it was held */
};

static __always_inline void blur_word(void *at, __u64 zero) {
    __u64 word;
    __builtin_memcpy(&word, at, sizeof word);
    word ^= zero;
    __builtin_memcpy(at, &word, sizeof word);
}

/* The verifier walks through all that follows the parser once for each thing that it knows of the
 * packet by then, and takes four times as long. What matters to it are two words, of which some
 * ways leave a part 0: each is mixed with a zero that it doesn't know for one. */
static __always_inline void blur(struct packet *packet) {
    const __u64 any = packet->here->now_ns;
    __u64 zero = any;
    asm volatile("%0 ^= %1" : "+r"(zero) : "r"(any));
    blur_word(packet->flow.client, zero);
    blur_word(&packet->traffic_class, zero);
}

/* A header behind Ethernet's, in place: NULL where it doesn't lie in the part that the program can
 * see. It begins two bytes behind a multiple of four, which the kernel aligns; the mask shows that
 * to the verifier of a machine whose words have to be aligned, and a bound beyond all tags and
 * IPv4's options. */
#define IN_PLACE_MASK 0x7C

static __always_inline void *in_place(struct __sk_buff *skb, __u32 at, __u32 size) {
    __u8 *data = (__u8 *)(unsigned long)skb->data;
    const __u8 *end = (const __u8 *)(unsigned long)skb->data_end;
    __u32 words = at - 2;
    asm volatile("" : "+r"(words)); /* or the compiler looks at another register than it adds */
    words &= IN_PLACE_MASK;
    return words + 2 == at && data + words + 2 + size <= end ? data + words + 2 : NULL;
}

/* Where it isn't in place it is loaded into `copy`. NULL: the frame ends before. */
static __always_inline const void *header_at(struct __sk_buff *skb, __u32 at, __u32 size,
                                             void *copy) {
    const void *header = in_place(skb, at, size);
    if (header)
        return header;
    return bpf_skb_load_bytes(skb, at, copy, size) ? NULL : copy;
}

/* Always there: the kernel has read it itself, or written it. */
static __always_inline const struct ethhdr *ethernet_of(struct __sk_buff *skb) {
    const struct ethhdr *head = (const struct ethhdr *)(unsigned long)skb->data;
    return (unsigned long)(head + 1) <= skb->data_end ? head : NULL;
}

static __always_inline void count(const struct packet *packet, __u32 what, __u64 by) {
    if (what < GATE_COUNTS)
        packet->here->counts[what] += by;
}

static __always_inline int pass(__u32 why, const struct packet *packet) {
    count(packet, why, packet->segments);
    return TC_ACT_UNSPEC;
}

static __always_inline int drop(__u32 why, const struct packet *packet) {
    count(packet, why, packet->segments);
    return TC_ACT_SHOT;
}

/* The clock costs as much as all the rest of an idle gate; a tick's age of the time is nothing to
 * beats. */
static __always_inline __u64 coarse_now(struct gate_processor *here) {
    const __u64 tick = tick_now();
    if (here->tick != tick || here->now_ns == 0) {
        here->tick = tick;
        here->now_ns = monotonic_now();
        here->recent = (__u64)bpf_get_smp_processor_id() * GATE_RECENT;
    }
    return here->now_ns;
}
