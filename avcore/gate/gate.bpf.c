/* The gate's program, for both ways of a client-side interface: what comes in there is from the
 * client, what goes out is to it. gate_records.h says what it shares with avcore; avcore writes the
 * verdicts, the limits and the settings, the program everything else.
 *
 * Each packet is parsed once, by bounded copies, for its data may lie in pages that the program
 * can't see. What passes goes on to the filters of others. Runs on Linux 5.10 and later. */
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

#define NS_PER_SECOND 1000000000ull
#define EXTENSION_HEADERS_MAX 8
#define VLAN_TAGS_MAX 2     /* in the frame, behind the one that the kernel keeps beside it; */
#define PRIORITY_TAGS_MAX 8 /* with the VLAN ID 0, which every receiver takes off */
#define VLAN_ID 0x0FFF
#define TAGGED_TYPE_MAX (12 + 4 * (PRIORITY_TAGS_MAX + VLAN_TAGS_MAX))
#define HOP_LIMIT 64 /* of packets made here */
#define DNS_PORT_BE bpf_htons(53)
#define FRAGMENT_OFFSET 0x1FFF /* IPv4, in the field's lower bits */
#define FRAGMENT_MORE 0x2000
/* tc_index of a datagram of DNS that came from a client. It stays with the packet, bridged or
 * routed, until it goes down to another. */
#define CAME_UP 0x4A55

struct locked_bucket {
    struct bpf_spin_lock lock;
    __u32 reserved;
    struct gate_tokens bucket;
};

struct whole_copy {
    struct gate_copy head;
    __u8 frame[GATE_JOINED_MAX];
};

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

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, GATE_BUCKETS);
    __type(key, __u32);
    __type(value, struct gate_limit);
} limits SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, GATE_BUCKETS);
    __type(key, __u32);
    __type(value, struct locked_bucket);
} buckets SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, GATE_CLIENTS);
    __type(key, struct gate_client);
    __type(value, struct gate_client_state);
} clients SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct gate_settings);
} settings SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct gate_processor);
} processors SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, GATE_RING_BYTES);
} copies SEC(".maps");

/* Where a copy is put together: too large for the stack. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct whole_copy);
} workbench SEC(".maps");

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

/* What most frames begin with. */
struct first_headers {
    __u8 aligning[2];
    struct ethhdr ethernet;
    struct iphdr ipv4;     /* unless it is an IPv6 packet */
    struct tcp_header tcp; /* its ports are other protocols', too */
};
#define FIRST_HEADERS_SIZE (sizeof(struct first_headers) - 2)

struct packet {
    struct gate_processor *here; /* the processor that is at it */
    struct gate_flow flow;
    struct first_headers first; /* loaded at once where they fit, or where they are */
    __u32 network;              /* offsets in the frame: the IP header, */
    __u32 transport;            /* what follows it, */
    __u32 end;                  /* and the end, before any padding */
    __u32 segments;             /* on the wire; more than one of a GSO packet */
    __u32 headers;              /* from the frame's first byte to the payload, of each segment */
    __u8 direction;
    __u8 first_fragment;
    __u8 extended; /* IPv6 with extension headers */
    __u8 is_ipv6;
    __u8 traffic_class;
    __u8 all_loaded; /* the transport's header is where `first` has it */
    __u8 is_error;   /* of ICMP or ICMPv6: it quotes a packet of the other direction */
};

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
    const __u64 tick = bpf_jiffies64();
    if (here->tick != tick || here->now_ns == 0) {
        here->tick = tick;
        here->now_ns = bpf_ktime_get_ns();
    }
    return here->now_ns;
}

/* ---- parsing: each step answers what becomes of the packet, UNDECIDED being: look further ---- */

static __always_inline void set_addresses(struct gate_flow *flow, __u8 direction,
                                          const void *source, const void *dest, __u32 size) {
    const __u32 at = sizeof flow->client - size;
    const bool up = direction == GATE_UP;
    __builtin_memcpy(flow->client + at, up ? source : dest, size);
    __builtin_memcpy(flow->server + at, up ? dest : source, size);
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
    struct tcp_header *tcp = &packet->first.tcp;
    if (packet->transport + sizeof *tcp > packet->end ||
        (!packet->all_loaded && bpf_skb_load_bytes(skb, packet->transport, tcp, sizeof *tcp)))
        return GATE_COUNT_MALFORMED;
    const __u32 length = (tcp->offset >> 4) * 4;
    if (length < sizeof *tcp ||
        (packet->transport + length > packet->end && !packet->first_fragment))
        return GATE_COUNT_MALFORMED;
    packet->headers = packet->transport + length;
    set_ports(&packet->flow, packet->direction, tcp->source, tcp->dest);
    return GATE_COUNT_UNDECIDED;
}

static __always_inline int parse_udp(struct __sk_buff *skb, struct packet *packet) {
    struct tcp_header *ports = &packet->first.tcp;
    const __u32 length = 8;
    if (packet->transport + length > packet->end ||
        (!packet->all_loaded && bpf_skb_load_bytes(skb, packet->transport, ports, 4)))
        return GATE_COUNT_MALFORMED;
    packet->headers = packet->transport + length;
    set_ports(&packet->flow, packet->direction, ports->source, ports->dest);
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
    struct iphdr *head = &packet->first.ipv4;
    if (!packet->all_loaded && bpf_skb_load_bytes(skb, packet->network, head, sizeof *head))
        return GATE_COUNT_MALFORMED;
    const __u32 length = head->ihl * 4;
    if (length != sizeof *head)
        packet->all_loaded = 0;
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

/* Steps over one extension header at `transport`. */
static __always_inline int step_over(struct __sk_buff *skb, struct packet *packet) {
    struct {
        __u8 next;
        __u8 length;
        __be16 fragment;
    } head;
    if (packet->transport + 8 > packet->end ||
        bpf_skb_load_bytes(skb, packet->transport, &head, sizeof head))
        return GATE_COUNT_MALFORMED;
    __u32 length = (head.length + 1) * 8;
    if (packet->flow.proto == IPPROTO_AH)
        length = (head.length + 2) * 4;
    if (packet->flow.proto == IPPROTO_FRAGMENT) {
        length = 8;
        if (head.fragment & bpf_htons(0xFFF8))
            return GATE_COUNT_FRAGMENT;
        packet->first_fragment = (head.fragment & bpf_htons(1)) != 0;
    }
    packet->flow.proto = head.next;
    packet->transport += length;
    packet->extended = 1;
    if (packet->transport > packet->end)
        return GATE_COUNT_MALFORMED;
    /* The daemon would see another packet: one that ends before its ports. */
    return packet->transport + sizeof(struct tcp_header) <= GATE_FRAME_MAX
               ? GATE_COUNT_UNDECIDED
               : GATE_COUNT_DEEP_HEADERS;
}

/* An IPv6 packet with such an address would be taken for an IPv4 flow. */
static __always_inline bool is_mapped(const struct in6_addr *address) {
    const __be32 *words = address->in6_u.u6_addr32;
    return !words[0] && !words[1] && words[2] == bpf_htonl(0xFFFF);
}

static __always_inline int parse_ipv6(struct __sk_buff *skb, struct packet *packet) {
    struct ipv6hdr head;
    packet->is_ipv6 = 1;
    if (bpf_skb_load_bytes(skb, packet->network, &head, sizeof head) || head.version != 6)
        return GATE_COUNT_MALFORMED;
    const __u32 payload = bpf_ntohs(head.payload_len);
    packet->transport = packet->network + sizeof head;
    if (!set_end(skb, packet, payload || !skb->gso_size ? sizeof head + payload : 0))
        return GATE_COUNT_MALFORMED;
    if (is_mapped(&head.saddr) || is_mapped(&head.daddr))
        return GATE_COUNT_RESERVED;
    packet->traffic_class = (__u8)(head.priority << 4 | head.flow_lbl[0] >> 4);
    packet->flow.proto = head.nexthdr;
    set_addresses(&packet->flow, packet->direction, &head.saddr, &head.daddr, sizeof head.saddr);
    for (int i = 0; i < EXTENSION_HEADERS_MAX; i++) {
        if (!is_extension(packet->flow.proto))
            return parse_transport(skb, packet);
        const int result = step_over(skb, packet);
        if (result != GATE_COUNT_UNDECIDED)
            return result;
    }
    if (!is_extension(packet->flow.proto))
        return parse_transport(skb, packet);
    return GATE_COUNT_DEEP_HEADERS;
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
    const bool loaded =
        bpf_skb_load_bytes(skb, 0, &packet->first.ethernet, FIRST_HEADERS_SIZE) == 0;
    __be16 type_be = packet->first.ethernet.h_proto;
    if (!loaded && bpf_skb_load_bytes(skb, at, &type_be, sizeof type_be))
        return GATE_COUNT_MALFORMED;
    packet->all_loaded = loaded && type_be == bpf_htons(ETH_P_IP);
    __u16 type = bpf_ntohs(type_be);
    if (is_tag(type)) {
        const __u32 found = (__u32)jorn_gate_behind_tags(skb);
        at = found >> 16;
        type = (__u16)found;
        if (at < sizeof(struct ethhdr) || at > TAGGED_TYPE_MAX)
            return GATE_COUNT_MALFORMED;
        if (is_tag(type))
            return GATE_COUNT_TAGS;
    }
    packet->network = at + sizeof type_be;
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

/* ---- counting and limiting ---- */

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

/* Whether there are tokens; then `cost` of them go, if need be into debt. */
static __always_inline bool take_tokens(struct gate_tokens *bucket, __u64 a_second, __u64 burst,
                                        __u64 cost, __u64 now) {
    const __s64 full = (__s64)((burst < NS_PER_SECOND ? burst : NS_PER_SECOND) * NS_PER_SECOND);
    cost *= NS_PER_SECOND;
    __s64 tokens = bucket->tokens;
    __u64 filled = bucket->filled_ns;
    const __u64 missing = tokens < full ? (__u64)(full - tokens) : 0;
    const __u64 elapsed = now > filled ? now - filled : 0;
    if (filled == 0 || elapsed >= missing / a_second)
        tokens = full;
    else
        tokens += (__s64)(elapsed * a_second);
    const bool enough = tokens > 0;
    if (enough)
        tokens -= (__s64)cost;
    bucket->tokens = tokens;
    bucket->filled_ns = now > filled ? now : filled;
    return enough;
}

static __always_inline bool is_within_limit(__u32 index, const struct packet *packet) {
    if (index == 0)
        return true;
    const struct gate_limit *limit = bpf_map_lookup_elem(&limits, &index);
    struct locked_bucket *locked = bpf_map_lookup_elem(&buckets, &index);
    if (!limit || !locked || limit->bytes_per_second == 0)
        return true;
    const __u64 a_second = limit->bytes_per_second;
    const __u64 burst = limit->burst;
    const __u64 cost = ip_bytes(packet);
    const __u64 now = bpf_ktime_get_ns();
    bpf_spin_lock(&locked->lock);
    const bool enough = take_tokens(&locked->bucket, a_second, burst, cost, now);
    bpf_spin_unlock(&locked->lock);
    return enough;
}

/* ---- copies ---- */

static __always_inline struct gate_client_state *client_of(struct __sk_buff *skb,
                                                           const struct packet *packet) {
    struct gate_client client = {};
    const __u32 at = packet->direction == GATE_UP ? offsetof(struct ethhdr, h_source)
                                                  : offsetof(struct ethhdr, h_dest);
    if (bpf_skb_load_bytes(skb, at, client.mac, sizeof client.mac))
        return NULL;
    struct gate_client_state *state = bpf_map_lookup_elem(&clients, &client);
    if (!state) {
        const struct gate_client_state unseen = {};
        bpf_map_update_elem(&clients, &client, &unseen, BPF_NOEXIST);
        state = bpf_map_lookup_elem(&clients, &client);
    }
    return state;
}

/* Without a lock, which maps of this kind can't hold: two processors may let one copy too many
 * through. */
static __always_inline bool may_copy(struct __sk_buff *skb, const struct packet *packet,
                                     __u32 a_second, __u64 now) {
    struct gate_client_state *client = a_second ? client_of(skb, packet) : NULL;
    if (!client)
        return false;
    if (take_tokens(&client->copies[packet->direction == GATE_UP ? GATE_UP : GATE_DOWN], a_second,
                    a_second, 1, now))
        return true;
    __sync_fetch_and_add(&client->refused, 1);
    return false;
}

/* False: its client had too many. */
static __noinline bool copy_up(struct __sk_buff *skb, const struct packet *packet,
                               const struct gate_settings *set) {
    const __u64 now = bpf_ktime_get_ns();
    const __u32 first = 0;
    struct whole_copy *copy = bpf_map_lookup_elem(&workbench, &first);
    if (!copy)
        return true;
    if (!may_copy(skb, packet, set->copies_per_second, now)) {
        count(packet, GATE_COUNT_COPIES_REFUSED, 1);
        return false;
    }
    const bool joined_datagrams = packet->flow.proto == IPPROTO_UDP && skb->gso_size;
    __u32 captured = skb->len;
    if (!joined_datagrams && captured > GATE_FRAME_MAX)
        captured = GATE_FRAME_MAX;
    asm volatile("" : "+r"(captured)); /* the verifier has to see both bounds on one register */
    if (captured > GATE_JOINED_MAX)
        captured = GATE_JOINED_MAX;
    /* No frame is that short; older verifiers learn no bound from a comparison with 0. */
    if (captured < ETH_HLEN || bpf_skb_load_bytes(skb, 0, copy->frame, captured))
        return true;
    copy->head.flow = packet->flow;
    copy->head.time_ns = now;
    copy->head.if_index = skb->ifindex;
    copy->head.length = skb->len;
    copy->head.captured = (__u16)captured;
    copy->head.segment_size = (__u16)skb->gso_size;
    copy->head.direction = packet->direction;
    copy->head.came_up = packet->direction == GATE_DOWN && skb->tc_index == CAME_UP;
    const bool lost = bpf_ringbuf_output(&copies, copy, sizeof copy->head + captured, 0) != 0;
    count(packet, lost ? GATE_COUNT_COPIES_LOST : GATE_COUNT_COPIES, 1);
    return true;
}

/* ---- RST segments, made of the packet that is denied ---- */

struct ends {
    __u8 macs[2][6]; /* destination first, as in the frame */
    union {
        struct iphdr ipv4;
        struct ipv6hdr ipv6;
    };
};

static __always_inline __u16 folded(__u64 sum) {
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    return (__u16)sum;
}

static __always_inline __u64 sum_of(const void *words, __u32 size) {
    __u64 sum = 0;
    for (__u32 i = 0; i < size / 4; i++) {
        __u32 word;
        __builtin_memcpy(&word, (const __u8 *)words + i * 4, 4);
        sum += word;
    }
    return sum;
}

/* The sum over the pseudo-header. That the addresses of IPv4 are mapped adds nothing to it: 0xFFFF
 * is another zero there. */
static __always_inline __u16 pseudo_sum(const struct gate_flow *flow, __u32 length) {
    return folded(sum_of(flow, 32) + bpf_htonl(IPPROTO_TCP) + bpf_htonl(length));
}

/* Packets made by this machine, or put together from several, hold the pseudo-header's sum alone;
 * the rest is added when they leave. */
static __always_inline bool is_checksum_partial(const struct packet *packet) {
    return packet->first.tcp.check == pseudo_sum(&packet->flow, packet->end - packet->transport);
}

static __always_inline void finish_tcp(const struct packet *packet, struct tcp_header *tcp) {
    tcp->offset = 5 << 4;
    tcp->window = 0;
    tcp->urgent = 0;
    tcp->check = 0;
    const __u16 pseudo = pseudo_sum(&packet->flow, sizeof *tcp);
    tcp->check = is_checksum_partial(packet)
                     ? pseudo
                     : (__u16)~folded((__u64)pseudo + sum_of(tcp, sizeof *tcp));
}

static __always_inline void swap_words(__be32 *a, __be32 *b, __u32 words) {
    for (__u32 i = 0; i < words; i++) {
        const __be32 kept = a[i];
        a[i] = b[i];
        b[i] = kept;
    }
}

static __always_inline void turn_round(const struct packet *packet, struct ends *ends) {
    __u8 mac[6];
    __builtin_memcpy(mac, ends->macs[0], 6);
    __builtin_memcpy(ends->macs[0], ends->macs[1], 6);
    __builtin_memcpy(ends->macs[1], mac, 6);
    if (packet->is_ipv6)
        swap_words(ends->ipv6.saddr.in6_u.u6_addr32, ends->ipv6.daddr.in6_u.u6_addr32, 4);
    else
        swap_words(&ends->ipv4.saddr, &ends->ipv4.daddr, 1);
}

static __always_inline void replace_in_sum(__u16 *check, __u16 from, __u16 to) {
    *check = (__u16)~folded((__u64)(__u16) ~*check + (__u16)~from + to);
}

static __always_inline bool load_ends(struct __sk_buff *skb, const struct packet *packet,
                                      struct ends *ends) {
    if (bpf_skb_load_bytes(skb, 0, ends->macs, sizeof ends->macs))
        return false;
    if (packet->is_ipv6) {
        if (bpf_skb_load_bytes(skb, packet->network, &ends->ipv6, sizeof ends->ipv6))
            return false;
        ends->ipv6.payload_len = bpf_htons(sizeof(struct tcp_header));
        ends->ipv6.hop_limit = HOP_LIMIT;
        return true;
    }
    struct iphdr *head = &ends->ipv4;
    if (bpf_skb_load_bytes(skb, packet->network, head, sizeof *head))
        return false;
    const __be16 length =
        bpf_htons((__u16)(packet->transport - packet->network + sizeof(struct tcp_header)));
    replace_in_sum(&head->check, head->tot_len, length);
    replace_in_sum(&head->check, bpf_htons((__u16)(head->ttl << 8)), bpf_htons(HOP_LIMIT << 8));
    head->tot_len = length;
    head->ttl = HOP_LIMIT;
    return true;
}

/* The packet is cut already. The kernel's own sum over a received packet doesn't hold the MACs. */
static __always_inline bool store(struct __sk_buff *skb, const struct packet *packet,
                                  const struct ends *ends, struct tcp_header *tcp) {
    finish_tcp(packet, tcp);
    if (bpf_skb_store_bytes(skb, 0, ends->macs, sizeof ends->macs, 0) ||
        bpf_skb_store_bytes(skb, packet->transport, tcp, sizeof *tcp, BPF_F_RECOMPUTE_CSUM))
        return false;
    return (packet->is_ipv6 ? bpf_skb_store_bytes(skb, packet->network, &ends->ipv6,
                                                  sizeof ends->ipv6, BPF_F_RECOMPUTE_CSUM)
                            : bpf_skb_store_bytes(skb, packet->network, &ends->ipv4,
                                                  sizeof ends->ipv4, BPF_F_RECOMPUTE_CSUM)) == 0;
}

/* A group that is answered would multiply the answer. */
static __always_inline bool is_for_group(const struct ends *ends) {
    return (ends->macs[0][0] & 1) != 0;
}

/* What a closed port would have said (RFC 9293, 3.10.7.1). */
static __always_inline struct tcp_header answer_to(const struct packet *packet) {
    const struct tcp_header *in = &packet->first.tcp;
    struct tcp_header out = {.source = in->dest, .dest = in->source, .flags = TCP_RST};
    if (in->flags & TCP_ACK) {
        out.seq = in->ack;
        return out;
    }
    const __u32 data = packet->end - packet->headers;
    out.ack = bpf_htonl(bpf_ntohl(in->seq) + data + ((in->flags & TCP_SYN) != 0) +
                        ((in->flags & TCP_FIN) != 0));
    out.flags = TCP_RST | TCP_ACK;
    return out;
}

static __always_inline bool is_pure_reset(const struct packet *packet) {
    return packet->flow.proto == IPPROTO_TCP && (packet->first.tcp.flags & TCP_RST) &&
           packet->headers == packet->end;
}

/* Answers the sender, and makes the packet itself the receiver's RST; a connection that is only
 * asked for exists at its sender alone. */
static __noinline int reset(struct __sk_buff *skb, const struct packet *packet) {
    struct ends ends;
    if (packet->flow.proto != IPPROTO_TCP || packet->extended || packet->first_fragment ||
        (packet->first.tcp.flags & TCP_RST))
        return TC_ACT_SHOT;
    if (!load_ends(skb, packet, &ends) || is_for_group(&ends) ||
        bpf_skb_change_tail(skb, packet->transport + sizeof(struct tcp_header), 0))
        return TC_ACT_SHOT;
    struct tcp_header tcp = answer_to(packet);
    turn_round(packet, &ends);
    if (!store(skb, packet, &ends, &tcp) ||
        bpf_clone_redirect(skb, skb->ifindex, packet->direction == GATE_DOWN ? BPF_F_INGRESS : 0))
        return TC_ACT_SHOT;
    count(packet, GATE_COUNT_RESETS, 1);
    const __u8 flags = packet->first.tcp.flags;
    if ((flags & TCP_SYN) && !(flags & TCP_ACK))
        return TC_ACT_SHOT;
    tcp = packet->first.tcp;
    tcp.flags = TCP_RST | (flags & TCP_ACK);
    turn_round(packet, &ends);
    if (!store(skb, packet, &ends, &tcp))
        return TC_ACT_SHOT;
    count(packet, GATE_COUNT_RESETS, 1);
    return TC_ACT_UNSPEC;
}

/* ---- verdicts ---- */

/* The header's sum over itself stays what it was, and so does the kernel's own over the packet. */
static __always_inline void set_dscp_ipv4(struct __sk_buff *skb, const struct packet *packet,
                                          __u8 tos) {
    struct iphdr head = packet->first.ipv4;
    head.tos = tos;
    replace_in_sum(&head.check, bpf_htons(packet->first.ipv4.tos), bpf_htons(tos));
    bpf_skb_store_bytes(skb, packet->network, &head, offsetof(struct iphdr, saddr), 0);
}

static __always_inline void set_dscp_ipv6(struct __sk_buff *skb, __u32 network, __u8 class) {
    __be16 head; /* version, traffic class, the flow label's first bits */
    if (bpf_skb_load_bytes(skb, network, &head, sizeof head))
        return;
    head = (head & bpf_htons(0xF00F)) | bpf_htons((__u16)(class << 4));
    bpf_skb_store_bytes(skb, network, &head, sizeof head, BPF_F_RECOMPUTE_CSUM);
}

/* The bits of ECN (RFC 3168) are the ends' own. */
static __always_inline void set_dscp(struct __sk_buff *skb, const struct packet *packet,
                                     __u8 dscp) {
    const __u8 wanted = (__u8)(dscp << 2) | (packet->traffic_class & 3);
    if (wanted == packet->traffic_class)
        return;
    if (packet->is_ipv6)
        set_dscp_ipv6(skb, packet->network, wanted);
    else
        set_dscp_ipv4(skb, packet, wanted);
}

static __always_inline int deny(struct __sk_buff *skb, const struct packet *packet,
                                const struct gate_verdict *verdict, struct gate_counter *counter) {
    const bool resets = (verdict->flags & GATE_RESET) != 0;
    if (resets && is_pure_reset(packet))
        return pass(GATE_COUNT_DECIDED, packet);
    count(packet, GATE_COUNT_DENIED, packet->segments);
    if (counter)
        __sync_fetch_and_add(&counter->denied, packet->segments);
    return resets ? reset(skb, packet) : TC_ACT_SHOT;
}

static __always_inline int allow(struct __sk_buff *skb, const struct packet *packet,
                                 const struct gate_verdict *verdict, struct gate_counter *counter) {
    const __u32 bucket = verdict->bucket[packet->direction == GATE_UP ? GATE_UP : GATE_DOWN];
    if (!is_within_limit(bucket, packet)) {
        if (counter)
            __sync_fetch_and_add(&counter->limited, packet->segments);
        return drop(GATE_COUNT_LIMITED, packet);
    }
    if ((verdict->flags & GATE_SET_PRIORITY) && packet->direction == GATE_DOWN)
        skb->priority = verdict->priority;
    if (verdict->flags & GATE_SET_DSCP)
        set_dscp(skb, packet, verdict->dscp);
    count_passed(counter, skb, packet);
    return pass(GATE_COUNT_DECIDED, packet);
}

static __always_inline bool is_dns(const struct gate_flow *flow) {
    return flow->proto == IPPROTO_UDP &&
           (flow->client_port_be == DNS_PORT_BE || flow->server_port_be == DNS_PORT_BE);
}

static __always_inline int judge(struct __sk_buff *skb, const struct packet *packet,
                                 const struct gate_settings *set, bool attended) {
    struct gate_flow_state *state = state_of(packet, set);
    const struct gate_verdict *verdict =
        state ? &state->verdict : bpf_map_lookup_elem(&verdicts, &packet->flow);
    struct gate_counter *counter = state ? &state->counter : NULL;
    const bool judged = verdict && verdict->action;
    const bool decided = judged && !(verdict->flags & GATE_NOT_YET_FINAL);
    const bool settled = decided && verdict->generation == set->generation;
    bool excess = false;
    if (packet->direction == GATE_UP && is_dns(&packet->flow))
        skb->tc_index = CAME_UP;
    if ((attended || set->probing) && (!settled || is_dns(&packet->flow)))
        excess = !copy_up(skb, packet, set);
    if (!attended && !set->fail_closed)
        return pass(GATE_COUNT_NOBODY, packet);
    if (!decided && !attended)
        return drop(GATE_COUNT_SHUT, packet);
    if (judged && verdict->action == GATE_DENY)
        return deny(skb, packet, verdict, counter);
    if (judged)
        return allow(skb, packet, verdict, counter);
    if (excess && packet->direction == GATE_UP && (set->rules & GATE_DROP_EXCESS))
        return drop(GATE_COUNT_EXCESS, packet);
    count_passed(counter, skb, packet);
    return pass(GATE_COUNT_UNDECIDED, packet);
}

/* ---- what passes without a verdict of its own ---- */

/* Whether the client may send it beside what it has sent of this kind. */
static __always_inline int pass_always(struct __sk_buff *skb, const struct packet *packet) {
    if (packet->direction == GATE_UP) {
        struct gate_client_state *client = client_of(skb, packet);
        if (!client || !take_tokens(&client->always, GATE_ALWAYS_A_SECOND, GATE_ALWAYS_BURST,
                                    frame_bytes(skb, packet), bpf_ktime_get_ns()))
            return drop(GATE_COUNT_TOO_MUCH, packet);
    }
    return pass(GATE_COUNT_ALWAYS, packet);
}

/* The flow of the packet that an error quotes, which went the other way and may be cut behind its
 * ports. False where it doesn't show one. */
static __always_inline bool quoted_flow(struct __sk_buff *skb, const struct packet *packet,
                                        struct gate_flow *flow) {
    const __u8 direction = packet->direction == GATE_UP ? GATE_DOWN : GATE_UP;
    const __u32 at = packet->transport + 8;
    __u32 ports_at;
    __be16 ports[2];
    union {
        struct iphdr ipv4;
        struct ipv6hdr ipv6;
    } head;
    if (packet->is_ipv6) {
        if (bpf_skb_load_bytes(skb, at, &head, sizeof head.ipv6))
            return false;
        flow->proto = head.ipv6.nexthdr == IPPROTO_ICMPV6 ? IPPROTO_ICMP : head.ipv6.nexthdr;
        set_addresses(flow, direction, &head.ipv6.saddr, &head.ipv6.daddr, sizeof head.ipv6.saddr);
        ports_at = at + sizeof head.ipv6;
    } else {
        if (bpf_skb_load_bytes(skb, at, &head, sizeof head.ipv4) ||
            (head.ipv4.frag_off & bpf_htons(FRAGMENT_OFFSET)))
            return false;
        flow->proto = head.ipv4.protocol;
        set_addresses(flow, direction, &head.ipv4.saddr, &head.ipv4.daddr, sizeof head.ipv4.saddr);
        ports_at = at + head.ipv4.ihl * 4;
    }
    if (flow->proto != IPPROTO_TCP && flow->proto != IPPROTO_UDP)
        return true;
    if (bpf_skb_load_bytes(skb, ports_at, ports, sizeof ports))
        return false;
    set_ports(flow, direction, ports[0], ports[1]);
    return true;
}

static __noinline int judge_error(struct __sk_buff *skb, const struct packet *packet) {
    struct gate_flow quoted = {};
    if (quoted_flow(skb, packet, &quoted)) {
        const struct gate_verdict *verdict = bpf_map_lookup_elem(&verdicts, &quoted);
        if (verdict && verdict->action == GATE_DENY)
            return drop(GATE_COUNT_DENIED, packet);
    }
    return pass_always(skb, packet);
}

/* A later fragment: it shows no ports. */
static __always_inline int pass_fragment(struct __sk_buff *skb, const struct packet *packet,
                                         const struct gate_settings *set) {
    struct gate_flow pair = packet->flow;
    pair.proto = 0;
    pair.fragments = 1;
    const struct gate_verdict *verdict = bpf_map_lookup_elem(&verdicts, &pair);
    if (verdict && verdict->generation == set->generation) {
        const __u32 bucket = verdict->bucket[packet->direction == GATE_UP ? GATE_UP : GATE_DOWN];
        if (!is_within_limit(bucket, packet))
            return drop(GATE_COUNT_LIMITED, packet);
        if ((verdict->flags & GATE_SET_PRIORITY) && packet->direction == GATE_DOWN)
            skb->priority = verdict->priority;
    }
    return pass(GATE_COUNT_FRAGMENT, packet);
}

static __always_inline int gate(struct __sk_buff *skb, __u8 direction) {
    const __u32 first = 0;
    const struct gate_settings *set = bpf_map_lookup_elem(&settings, &first);
    struct gate_processor *here = bpf_map_lookup_elem(&processors, &first);
    if (!set || !here)
        return TC_ACT_UNSPEC;
    struct packet packet = {.here = here, .direction = direction, .segments = 1};
    /* A beat may be younger than the time. */
    const bool attended = (__s64)(coarse_now(here) - set->beat_ns) <= (__s64)GATE_BEAT_NS;
    const bool open = !attended && !set->fail_closed;
    if (open && !set->probing)
        return pass(GATE_COUNT_NOBODY, &packet);
    int result = parse_frame(skb, &packet);
    count_segments(skb, &packet);
    const bool fragment = result == GATE_COUNT_FRAGMENT || packet.first_fragment;
    if (fragment && direction == GATE_UP && (set->rules & GATE_DROP_FRAGMENTS))
        result = GATE_COUNT_CUT;
    else if (result == GATE_COUNT_TAGS && (set->rules & GATE_PASS_TAGS))
        result = GATE_COUNT_NOT_IP;
    if (open && (result != GATE_COUNT_UNDECIDED || packet.is_error))
        return pass(GATE_COUNT_NOBODY, &packet);
    switch (result) {
    case GATE_COUNT_UNDECIDED:
        return packet.is_error ? judge_error(skb, &packet) : judge(skb, &packet, set, attended);
    case GATE_COUNT_NOT_IP:
        return attended ? pass(GATE_COUNT_NOT_IP, &packet) : drop(GATE_COUNT_SHUT, &packet);
    case GATE_COUNT_ALWAYS:
        return pass_always(skb, &packet);
    case GATE_COUNT_FRAGMENT:
        return pass_fragment(skb, &packet, set);
    default:
        return drop((__u32)result, &packet);
    }
}

SEC("tc")
int jorn_gate_up(struct __sk_buff *skb) {
    return gate(skb, GATE_UP);
}

SEC("tc")
int jorn_gate_down(struct __sk_buff *skb) {
    return gate(skb, GATE_DOWN);
}

char LICENSE[] SEC("license") = "GPL";
