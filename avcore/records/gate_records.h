/* What the gate in the kernel and avcore tell each other: the records of its maps and of its ring.
 *
 * For C (the gate's program) and C++. Byte orders as the members say, else the machine's. The maps
 * are pinned and outlive both programs: whoever changes a record or a map's size changes
 * GATE_LAYOUT, which names the folder of the pins. */
#ifndef AVCORE_RECORDS_GATE_RECORDS_H
#define AVCORE_RECORDS_GATE_RECORDS_H

#include <linux/types.h>

#ifdef __cplusplus
#define GATE_SIZE(record, size) static_assert(sizeof(struct record) == (size))
#else
#define GATE_SIZE(record, size) _Static_assert(sizeof(struct record) == (size), #record)
#endif

#define GATE_LAYOUT "v11"

/* Bounds of the maps. */
#define GATE_FLOWS 65536  /* of verdicts, and of flows; the least recently used go first */
#define GATE_RECENT 1024  /* flows that each processor has at hand; a power of two */
#define GATE_CLIENTS 4096 /* whose copies are limited */
#define GATE_BUCKETS 16384
#define GATE_HOLDS 16384 /* flows of which packets were held */
#define GATE_RING_BYTES (4 * 1024 * 1024)
#define GATE_FRAME_MAX 2016 /* of a frame, in a copy; */
#define GATE_JOINED_MAX                                                                            \
    4032 /* of one with several datagrams: a hello of QUIC's takes two or three */
#define GATE_HELD_MAX 16384 /* of a frame that is held, which is whole; */
#define GATE_BACK_MAX                                                                              \
    16000 /* and of each packet of it: a little less than programs like the gate's may write (the  \
             kernel's SKB_MAX_ALLOC) */

/* What may come from each client of what always passes, in bytes of its frames: ample for what a
 * network lives by, an ARP for each address of a /24 at once among it. */
#define GATE_ALWAYS_A_SECOND 16384
#define GATE_ALWAYS_BURST 32768

/* Which way a packet goes; the index of what there is for each direction. */
enum gate_direction { GATE_UP = 0 /* from the client */, GATE_DOWN = 1 };

/* A flow as seen at the client's interface: as the daemon's decoders tell flows apart, but that a
 * first fragment of TCP has its ports here. IPv4 addresses are mapped (::ffff:a.b.c.d, RFC 4291);
 * only TCP and UDP have ports, ICMPv6 is ICMP. */
struct gate_flow {
    __u8 client[16];
    __u8 server[16];
    __u16 client_port_be;
    __u16 server_port_be;
    __u8 proto;     /* behind IPv6's extension headers */
    __u8 fragments; /* 1: the pair's later fragments, which show neither ports nor, in IPv6, the
                       protocol: both are 0 */
    __u8 reserved[2];
} __attribute__((aligned(8))); /* compared and mixed by words */
GATE_SIZE(gate_flow, 40);

enum gate_action { GATE_PASS = 1, GATE_DENY = 2 };

/* Bits of gate_verdict::flags. */
enum gate_flag {
    GATE_RESET = 1,         /* a denied TCP packet is answered with RST, to both sides */
    GATE_SET_DSCP = 2,      /* RFC 2474 */
    GATE_SET_PRIORITY = 4,  /* the packet's priority, at the client's egress */
    GATE_NOT_YET_FINAL = 8, /* its limits and marks hold; the packets are copied, as before */
    GATE_WAS_HELD = 16,     /* packets of it were held: later ones queue up behind them */
};

/* Written by avcore alone. One of an older generation than the settings' still holds, and the
 * flow's packets are copied again. */
struct gate_verdict {
    __u32 generation;
    __u8 action; /* gate_action */
    __u8 flags;
    __u8 dscp; /* six bits */
    __u8 reserved;
    __u32 priority;
    __u32 bucket[2]; /* of each direction; 0 = no limit */
    __u32 queue_at;  /* 0, or the interface at which `priority` is that of a queue, which keeps the
                        limit towards the client there; at others its bucket does, and a packet is
                        copied now and then: the queue belongs there */
};
GATE_SIZE(gate_verdict, 24);

struct gate_counter {
    __u64 packets[2]; /* that passed, by direction */
    __u64 bytes[2];   /* of their frames, as on the wire */
    __u64 denied;     /* packets dropped by a verdict */
    __u64 limited;    /* and by a rate limit */
};
GATE_SIZE(gate_counter, 48);

/* How a flow of TCP ended: what passed of it. */
enum gate_end { GATE_FIN_UP = 1, GATE_FIN_DOWN = 2, GATE_RST = 4 };

/* As long a flow is idle, and what comes then with its addresses and ports is another one. */
#define GATE_IDLE_NS 300000000000ull

/* What flows of the same addresses and ports had, and when the present one came: written by the
 * kernel alone, by several processors at once. A processor still has some of the counts at hand
 * when another begins a flow anew; they are that one's then. Times are CLOCK_MONOTONIC, which the
 * program reads anyway. */
struct gate_flow_record {
    struct gate_counter counter; /* of all of them: it never falls */
    struct gate_counter before;  /* what that was as the present one began */
    __u64 begun_ns;
    __u64 last_ns;  /* a tick too early at most */
    __u32 if_index; /* of the client's interface, at its last packet */
    __u8 mac[6];    /* the client's, in that one; both: gate_flow_state */
    __u8 fin[2];    /* 1: has passed, by direction. Bytes, for bits couldn't be set at once */
    __u8 reset;
    __u8 astray; /* in units of 2^30 ns: when a packet was copied that leaves beside its queue */
    __u8 reserved[2];
};
GATE_SIZE(gate_flow_record, 128);

/* A flow that a processor has at hand: written by the kernel alone, each by one processor. It looks
 * the verdict up once a tick, when any has changed, and when another flow has had the place. The
 * first packet that counts after that goes to the flow's record, and with it what was counted
 * before. So other packets cost no look-up by their flow and no locked addition. */
struct gate_recent {
    struct gate_flow flow;
    struct gate_verdict verdict; /* action 0: there was none */
    __u64 looked_up; /* when that was: the settings' `changes` and, in the lower half, the tick */
    struct gate_counter counter; /* what isn't in the flow's record yet */
    __u32 taken; /* grows as the look-up, or the way to the record, begins, and again as it ends:
                    odd between */
    __u32 noted; /* 1: the record knows of a packet since the look-up */
};
GATE_SIZE(gate_recent, 128);

/* Where a processor has a flow, among its GATE_RECENT. Flows that meet there cost each other
 * look-ups and nothing else, so it needn't be hard to guess. */
static inline __u32 gate_place(const struct gate_flow *flow) {
    __u64 words[sizeof(struct gate_flow) / 8];
    __builtin_memcpy(words, flow, sizeof words);
    const __u64 mixed =
        (words[0] ^ words[1] ^ words[2] ^ words[3] ^ words[4]) * 0x9E3779B97F4A7C15ull;
    return (__u32)(mixed >> 32) & (GATE_RECENT - 1);
}

/* A flow of which packets were held until its first verdict: written by the kernel alone, removed
 * by avcore. Packets that come while the two counts differ go the same way, behind the others. */
struct gate_hold {
    __u64 taken;        /* packets, as on the wire */
    __u64 back;         /* that came back and have left the processor's queues behind the gate */
    __u64 undecided_ns; /* when the last one without a verdict was taken */
    __u64 let_go_ns;    /* when the first one came back; 0: none yet */
    __u32 mark;         /* what somebody else had marked the last one with */
    __u32 reserved;
};
GATE_SIZE(gate_hold, 40);

#define GATE_BEHIND_NS 1000000000ull /* as long later packets wait for what doesn't come back */

/* What avcore writes behind a frame that goes back to where it was taken. */
struct gate_back {
    __u32 if_index;
};
GATE_SIZE(gate_back, 4);

#define GATE_WAIT_NS 1000000000ull /* as long a packet is held without a verdict */

/* How many packets of the wire a frame stands for that segmentation has joined; `segment_size` is 0
 * where it hasn't. Those that are taken, and those that come back. */
static inline __u32 gate_pieces(__u32 payload, __u32 end, __u32 segment_size) {
    return !segment_size || end <= payload ? 1 : (end - payload + segment_size - 1) / segment_size;
}

/* A rate limit: written by avcore alone. Entry 0 is none. */
struct gate_limit {
    __u64 bytes_per_second; /* of IP packets, as on the wire */
    __u64 burst;            /* bytes */
};
GATE_SIZE(gate_limit, 16);

/* Tokens are thousand millionths, so that no refill is rounded away. */
struct gate_tokens {
    __s64 tokens;
    __u64 filled_ns; /* 0: never, they start full */
};

/* Whose copies are limited, and what became of that: written by the kernel alone. */
struct gate_client {
    __u8 mac[6];
    __u8 reserved[2];
};
GATE_SIZE(gate_client, 8);
struct gate_client_state {
    struct gate_tokens copies[2]; /* by direction */
    struct gate_tokens always;    /* what always passes, of bytes */
    struct gate_tokens held;
    __u64 refused; /* copies, so far */
};
GATE_SIZE(gate_client_state, 72);

/* Bits of gate_settings::unattended: what is done without a beat. */
enum gate_unattended {
    GATE_STILL_ASK = 1,   /* undecided packets are copied */
    GATE_STILL_COUNT = 2, /* what passes an open gate counts for its flow */
};

/* Bits of gate_settings::rules. */
enum gate_rule {
    GATE_PASS_TAGS = 1,      /* frames with more VLAN tags than are walked over */
    GATE_DROP_FRAGMENTS = 2, /* of clients */
    GATE_DROP_EXCESS = 4, /* of a client's packets without a verdict, what it has no copies for */
    GATE_HOLD = 8,        /* a client's packets without a verdict are taken instead of copied */
};

/* Held packets, as on the wire, that avcore didn't let go: written by it alone. */
struct gate_endings {
    __u64 unjudged;  /* no verdict came in time, and the gate is to be closed then */
    __u64 crowded;   /* there were too many, of their client or of all */
    __u64 unwritten; /* the kernel didn't take them back */
};
GATE_SIZE(gate_endings, 24);

/* One word each is written at a time, through a mapping. */
struct gate_settings {
    __u64 beat_ns;           /* CLOCK_MONOTONIC, of the last sign that somebody decides */
    __u32 generation;        /* of the verdicts that are asked for */
    __u32 fail_closed;       /* without a beat; else everything passes then */
    __u32 copies_per_second; /* of each client */
    __u32 unattended;        /* gate_unattended */
    __u32 changes;           /* counted up after a verdict was written */
    __u32 rules;             /* gate_rule */
    __u32 holds_per_second;  /* of each client */
    __u32 back_mark;         /* of packets that come back; 0: none do */
    __u32 back_index;        /* of avcore's device, by which they do */
    __u32 reserved;
    struct gate_endings endings;
    __u64 told_ns; /* CLOCK_MONOTONIC: of flows that were silent since then avcore has told the ends
                      to readers; 0: of none */
};
GATE_SIZE(gate_settings, 80);

#define GATE_BEAT_NS 2000000000ull /* as long a beat holds */

/* What became of packets; the index into each processor's counts. */
enum gate_count {
    GATE_COUNT_DECIDED,      /* passed, under a verdict */
    GATE_COUNT_UNDECIDED,    /* passed before their verdict */
    GATE_COUNT_NOBODY,       /* passed because nobody was there */
    GATE_COUNT_ALWAYS,       /* passed, for a network lives by them */
    GATE_COUNT_NOT_IP,       /* passed, other protocols than IPv4 and IPv6 */
    GATE_COUNT_FRAGMENT,     /* passed: a later fragment, whose first one was judged */
    GATE_COUNT_DENIED,       /* dropped: by policy */
    GATE_COUNT_LIMITED,      /* dropped: by a rate limit */
    GATE_COUNT_SHUT,         /* dropped: undecided, and nobody was there */
    GATE_COUNT_MALFORMED,    /* dropped: headers that end early or contradict themselves */
    GATE_COUNT_RESERVED,     /* dropped: IPv4 of 240.0.0.0/4 but for the broadcast address */
    GATE_COUNT_DEEP_HEADERS, /* dropped: IPv6 with more extension headers than are walked, or longer
                                ones than a copy holds */
    GATE_COUNT_TAGS,         /* dropped: more VLAN tags than are walked over */
    GATE_COUNT_CUT,          /* dropped: a client's fragment, where those are */
    GATE_COUNT_TOO_MUCH,     /* dropped: beyond what a client may send of what always passes */
    GATE_COUNT_EXCESS,       /* dropped: without a verdict, and its client had too many copies */
    GATE_COUNT_HELD,         /* taken, until their flow's first verdict */
    GATE_COUNT_HELD_LONG,    /* dropped: too long to be held; their beginning went up */
    GATE_COUNT_HOLDS_REFUSED,  /* dropped: their client had too many to be held */
    GATE_COUNT_HOLDS_LOST,     /* dropped: the ring was full */
    GATE_COUNT_RESETS,         /* RST segments made */
    GATE_COUNT_COPIES,         /* that went up */
    GATE_COUNT_COPIES_REFUSED, /* their client had too many */
    GATE_COUNT_COPIES_LOST,    /* the ring was full */
    GATE_COUNT_BACK,           /* of the held ones; what became of them is counted as well */
    GATE_COUNT_FLOWS,          /* flows that got a record */
    GATE_COUNTS
};

/* Of one processor; written by the kernel alone. */
struct gate_processor {
    __u64 counts[GATE_COUNTS];
    __u64 tick; /* the kernel's, and the time at its first packet */
    __u64 now_ns;
    __u64 recent; /* the first of its gate_recent */
};
GATE_SIZE(gate_processor, GATE_COUNTS * sizeof(__u64) + 24);

/* A copy in the ring, or a packet that was taken; the frame follows, `captured` bytes of it. */
struct gate_copy {
    struct gate_flow flow;
    __u64 time_ns;  /* CLOCK_MONOTONIC */
    __u32 if_index; /* of the client's interface */
    __u32 length;   /* of the whole frame */
    __u16 captured; /* at most GATE_FRAME_MAX, or GATE_JOINED_MAX; GATE_HELD_MAX of a held one */
    __u16 segment_size; /* of the payload in each packet that segmentation has joined to one; 0: it
                           is one */
    __u8 direction;     /* gate_direction */
    __u8 came_up; /* of one on its way down: a datagram of DNS that a gate saw on its way up */
    __u8 held;    /* the packet itself: it goes on when avcore writes it back */
    __u8 is_ipv6;
    /* Of a held one: the tag that the kernel keeps beside the frame (IEEE 802.1Q), its type 0 where
     * there is none, and offsets in the frame. */
    __u16 vlan_type;
    __u16 vlan_tci;
    __u16 network;
    __u16 transport;
    __u16 payload; /* behind the header of TCP or UDP, or `transport` */
    __u16 end;     /* before any padding */
    __u32 reserved2;
};
GATE_SIZE(gate_copy, 80);

#endif
