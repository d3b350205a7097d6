/* From a frame to its flow. Each step answers what becomes of the packet, UNDECIDED being: look
 * further. */
#pragma once

#include "avcore/gate/kernel/packet.h"

#define EXTENSION_HEADERS_MAX 8
#define VLAN_TAGS_MAX 2     /* in the frame, behind the one that the kernel keeps beside it; */
#define PRIORITY_TAGS_MAX 8 /* with the VLAN ID 0, which every receiver takes off */
#define VLAN_ID 0x0FFF
#define TAGGED_TYPE_MAX (12 + 4 * (PRIORITY_TAGS_MAX + VLAN_TAGS_MAX))
#define FRAGMENT_OFFSET 0x1FFF /* IPv4, in the field's lower bits */
#define FRAGMENT_MORE 0x2000

/* By words, as which addresses lie in their headers. */
static __always_inline void set_addresses(struct gate_flow *flow, __u8 direction,
                                          const __be32 *source, const __be32 *dest, __u32 size) {
    const __u32 at = sizeof flow->client - size;
    const bool up = direction == GATE_UP;
    __builtin_memcpy(__builtin_assume_aligned(flow->client + at, 4), up ? source : dest, size);
    __builtin_memcpy(__builtin_assume_aligned(flow->server + at, 4), up ? dest : source, size);
    if (size == sizeof(__be32)) {
        flow->client[10] = flow->client[11] = 0xFF;
        flow->server[10] = flow->server[11] = 0xFF;
    }
}

static __always_inline void set_ports(struct gate_flow *flow, __u8 direction, __be16 source,
                                      __be16 dest) {
    flow->client_port_be = direction == GATE_UP ? source : dest;
    flow->server_port_be = direction == GATE_UP ? dest : source;
}

static __always_inline int parse_tcp(struct __sk_buff *skb, struct packet *packet) {
    struct tcp_header copy;
    if (packet->transport + sizeof copy > packet->end)
        return GATE_COUNT_MALFORMED;
    const struct tcp_header *tcp = header_at(skb, packet->transport, sizeof copy, &copy);
    if (!tcp)
        return GATE_COUNT_MALFORMED;
    const __u32 length = (tcp->offset >> 4) * 4;
    if (length < sizeof *tcp ||
        (packet->transport + length > packet->end && !packet->first_fragment))
        return GATE_COUNT_MALFORMED;
    packet->headers = packet->transport + length;
    packet->tcp_flags = tcp->flags;
    set_ports(&packet->flow, packet->direction, tcp->source, tcp->dest);
    return GATE_COUNT_UNDECIDED;
}

static __always_inline int parse_udp(struct __sk_buff *skb, struct packet *packet) {
    __be16 copy[2];
    const __u32 length = 8;
    if (packet->transport + length > packet->end)
        return GATE_COUNT_MALFORMED;
    const __be16 *ports = header_at(skb, packet->transport, sizeof copy, copy);
    if (!ports)
        return GATE_COUNT_MALFORMED;
    packet->headers = packet->transport + length;
    set_ports(&packet->flow, packet->direction, ports[0], ports[1]);
    return GATE_COUNT_UNDECIDED;
}

/* ICMP's and ICMPv6's errors have nothing else in common with echoes. */
static __always_inline int parse_icmp(struct __sk_buff *skb, struct packet *packet) {
    __u8 type;
    if (packet->transport + 4 > packet->end ||
        bpf_skb_load_bytes(skb, packet->transport, &type, sizeof type))
        return GATE_COUNT_MALFORMED;
    packet->is_error = type == 3 || type == 4 || type == 5 || type == 11 || type == 12;
    const bool router = type == 9 || type == 10;
    return router ? GATE_COUNT_ALWAYS : GATE_COUNT_UNDECIDED;
}

/* What is none of a link's own (RFC 4890, 4.4) is told to the daemon as ICMP. */
static __always_inline int parse_icmpv6(struct __sk_buff *skb, struct packet *packet) {
    __u8 type;
    if (packet->transport + 4 > packet->end ||
        bpf_skb_load_bytes(skb, packet->transport, &type, sizeof type))
        return GATE_COUNT_MALFORMED;
    packet->flow.proto = IPPROTO_ICMP;
    packet->is_error = type >= 1 && type <= 4;
    const bool listener = (type >= 130 && type <= 132) || type == 143;
    const bool neighbour = (type >= 133 && type <= 137) || type == 141 || type == 142;
    const bool router = type == 148 || type == 149 || (type >= 151 && type <= 153);
    return listener || neighbour || router ? GATE_COUNT_ALWAYS : GATE_COUNT_UNDECIDED;
}

static __always_inline int parse_transport(struct __sk_buff *skb, struct packet *packet) {
    packet->headers = packet->transport;
    switch (packet->flow.proto) {
    case IPPROTO_TCP:
        return parse_tcp(skb, packet);
    case IPPROTO_UDP:
        return parse_udp(skb, packet);
    case IPPROTO_ICMP:
        return packet->is_ipv6 ? GATE_COUNT_UNDECIDED : parse_icmp(skb, packet);
    case IPPROTO_ICMPV6:
        return packet->is_ipv6 ? parse_icmpv6(skb, packet) : GATE_COUNT_UNDECIDED;
    case IPPROTO_IGMP:
        return packet->is_ipv6 ? GATE_COUNT_UNDECIDED : GATE_COUNT_ALWAYS;
    default:
        return GATE_COUNT_UNDECIDED;
    }
}

/* The largest GSO packets say 0, for their length doesn't fit. */
static __always_inline bool set_end(struct __sk_buff *skb, struct packet *packet, __u32 length) {
    packet->end = length == 0 && skb->gso_size ? skb->len : packet->network + length;
    return packet->end <= skb->len;
}

static __always_inline bool is_reserved(__be32 address) {
    return (address & bpf_htonl(0xF0000000)) == bpf_htonl(0xF0000000) && address != 0xFFFFFFFF;
}

static __always_inline int parse_ipv4(struct __sk_buff *skb, struct packet *packet) {
    struct iphdr copy;
    const struct iphdr *head = header_at(skb, packet->network, sizeof copy, &copy);
    if (!head)
        return GATE_COUNT_MALFORMED;
    const __u32 length = head->ihl * 4;
    packet->transport = packet->network + length;
    if (head->version != 4 || length < sizeof *head ||
        !set_end(skb, packet, bpf_ntohs(head->tot_len)) || packet->transport > packet->end)
        return GATE_COUNT_MALFORMED;
    if (is_reserved(head->saddr) || is_reserved(head->daddr))
        return GATE_COUNT_RESERVED;
    packet->traffic_class = head->tos;
    packet->flow.proto = head->protocol;
    set_addresses(&packet->flow, packet->direction, &head->saddr, &head->daddr, sizeof head->saddr);
    const __u16 fragment = bpf_ntohs(head->frag_off);
    if (fragment & FRAGMENT_OFFSET)
        return GATE_COUNT_FRAGMENT;
    packet->first_fragment = (fragment & FRAGMENT_MORE) != 0;
    return parse_transport(skb, packet);
}

static __always_inline bool is_extension(__u8 header) {
    return header == IPPROTO_HOPOPTS || header == IPPROTO_ROUTING || header == IPPROTO_FRAGMENT ||
           header == IPPROTO_AH || header == IPPROTO_DSTOPTS;
}

struct extensions {
    __u32 at;
    __u32 end;
    __u8 header; /* what is at `at` */
    __u8 first_fragment;
};

static __always_inline int step_over(struct __sk_buff *skb, struct extensions *walk) {
    struct {
        __u8 next;
        __u8 length;
        __be16 fragment;
    } head;
    if (walk->at + 8 > walk->end || bpf_skb_load_bytes(skb, walk->at, &head, sizeof head))
        return GATE_COUNT_MALFORMED;
    __u32 length = (head.length + 1) * 8;
    if (walk->header == IPPROTO_AH)
        length = (head.length + 2) * 4;
    if (walk->header == IPPROTO_FRAGMENT) {
        length = 8;
        if (head.fragment & bpf_htons(0xFFF8))
            return GATE_COUNT_FRAGMENT;
        walk->first_fragment = (head.fragment & bpf_htons(1)) != 0;
    }
    walk->header = head.next;
    walk->at += length;
    if (walk->at > walk->end)
        return GATE_COUNT_MALFORMED;
    /* The daemon would see another packet: one that ends before its ports. */
    return walk->at + sizeof(struct tcp_header) <= GATE_FRAME_MAX ? GATE_COUNT_UNDECIDED
                                                                  : GATE_COUNT_DEEP_HEADERS;
}

/* What becomes of a packet with extension headers, in the lowest byte; above it what follows those
 * that were walked over, its offset (15 bits), and the bit of a first fragment. Global, as
 * jorn_gate_behind_tags. */
__noinline int jorn_gate_behind_extensions(struct __sk_buff *skb, __u32 at, __u32 end,
                                           __u32 header) {
    struct extensions walk = {.at = at, .end = end, .header = (__u8)header};
    int result = GATE_COUNT_UNDECIDED;
    for (int i = 0; i < EXTENSION_HEADERS_MAX && result == GATE_COUNT_UNDECIDED; i++) {
        if (!is_extension(walk.header))
            break;
        result = step_over(skb, &walk);
    }
    if (result == GATE_COUNT_UNDECIDED && is_extension(walk.header))
        result = GATE_COUNT_DEEP_HEADERS;
    return (int)((__u32)result | walk.header << 8 | (walk.at & 0x7FFF) << 16 |
                 (__u32)walk.first_fragment << 31);
}

static __always_inline int pass_extensions(struct __sk_buff *skb, struct packet *packet) {
    const __u32 found =
        (__u32)jorn_gate_behind_extensions(skb, packet->transport, packet->end, packet->flow.proto);
    packet->extended = 1;
    packet->flow.proto = (__u8)(found >> 8);
    packet->transport = found >> 16 & 0x7FFF;
    packet->first_fragment = (__u8)(found >> 31);
    return (__u8)found;
}

/* An IPv6 packet with such an address would be taken for an IPv4 flow. */
static __always_inline bool is_mapped(const struct in6_addr *address) {
    const __be32 *words = address->in6_u.u6_addr32;
    return !words[0] && !words[1] && words[2] == bpf_htonl(0xFFFF);
}

static __always_inline int parse_ipv6(struct __sk_buff *skb, struct packet *packet) {
    struct ipv6hdr copy;
    packet->is_ipv6 = 1;
    const struct ipv6hdr *head = header_at(skb, packet->network, sizeof copy, &copy);
    if (!head || head->version != 6)
        return GATE_COUNT_MALFORMED;
    const __u32 payload = bpf_ntohs(head->payload_len);
    packet->transport = packet->network + sizeof *head;
    if (!set_end(skb, packet, payload || !skb->gso_size ? sizeof *head + payload : 0))
        return GATE_COUNT_MALFORMED;
    if (is_mapped(&head->saddr) || is_mapped(&head->daddr))
        return GATE_COUNT_RESERVED;
    packet->traffic_class = (__u8)(head->priority << 4 | head->flow_lbl[0] >> 4);
    packet->flow.proto = head->nexthdr;
    set_addresses(&packet->flow, packet->direction, head->saddr.in6_u.u6_addr32,
                  head->daddr.in6_u.u6_addr32, sizeof head->saddr);
    if (is_extension(head->nexthdr)) {
        const int result = pass_extensions(skb, packet);
        if (result != GATE_COUNT_UNDECIDED)
            return result;
    }
    return parse_transport(skb, packet);
}

static __always_inline bool is_tag(__u16 type) {
    return type == ETH_P_8021Q || type == ETH_P_8021AD || type == ETH_P_QINQ1;
}

/* The offset of the type behind a frame's tags in the upper half, the type in the lower; a tag's
 * type where there are too many. Global, so that the verifier walks through it once, not once for
 * each number of tags with all that follows. */
__noinline int jorn_gate_behind_tags(struct __sk_buff *skb) {
    __u32 at = offsetof(struct ethhdr, h_proto);
    __u32 vlans = 0;
    __be16 words[3]; /* a type, and where it is a tag's what the tag says and the next type */
    for (int i = 0; i < PRIORITY_TAGS_MAX + VLAN_TAGS_MAX; i++) {
        if (bpf_skb_load_bytes(skb, at, words, sizeof words))
            return 0;
        if (!is_tag(bpf_ntohs(words[0])))
            return (int)(at << 16 | bpf_ntohs(words[0]));
        vlans += (bpf_ntohs(words[1]) & VLAN_ID) != 0;
        if (vlans > VLAN_TAGS_MAX)
            break;
        at += 4;
    }
    if (bpf_skb_load_bytes(skb, at, words, 2))
        return 0;
    return (int)(at << 16 | bpf_ntohs(words[0]));
}

static __always_inline int parse_frame(struct __sk_buff *skb, struct packet *packet) {
    __u32 at = offsetof(struct ethhdr, h_proto);
    const struct ethhdr *head = ethernet_of(skb);
    if (!head)
        return GATE_COUNT_MALFORMED;
    __u16 type = bpf_ntohs(head->h_proto);
    if (is_tag(type)) {
        const __u32 found = (__u32)jorn_gate_behind_tags(skb);
        at = found >> 16;
        type = (__u16)found;
        if (at < sizeof(struct ethhdr) || at > TAGGED_TYPE_MAX)
            return GATE_COUNT_MALFORMED;
        if (is_tag(type))
            return GATE_COUNT_TAGS;
    }
    packet->network = at + sizeof(__be16);
    if (type < ETH_P_802_3_MIN)
        return GATE_COUNT_ALWAYS; /* LLC: spanning trees and the like */
    switch (type) {
    case ETH_P_IP:
        return parse_ipv4(skb, packet);
    case ETH_P_IPV6:
        return parse_ipv6(skb, packet);
    case ETH_P_ARP:
    case ETH_P_RARP:
    case ETH_P_PAE:
    case ETH_P_PREAUTH:
    case ETH_P_LLDP:
        return GATE_COUNT_ALWAYS;
    default:
        return GATE_COUNT_NOT_IP;
    }
}
