/* The gate's program, for both ways of a client-side interface: what comes in there is from the
 * client, what goes out is to it. gate_records.h says what it shares with avcore; avcore writes the
 * verdicts, the limits and the settings, the program everything else.
 *
 * Each packet is parsed once, by bounded copies, for its data may lie in pages that the program
 * can't see. What passes goes on to the filters of others. Runs on Linux 5.10 and later. */
#include "avcore/gate/kernel/judge.h"
#include "avcore/gate/kernel/packet.h"
#include "avcore/gate/kernel/parse.h"

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct gate_settings);
} settings SEC(".maps");

/* The mark is a secret of avcore's, so nobody else's packets have it. */
static __always_inline bool take_mark_off(struct __sk_buff *skb, const struct gate_settings *set) {
    if (!set->back_mark || skb->mark != set->back_mark)
        return false;
    skb->mark = 0;
    return true;
}

static __always_inline int gate(struct __sk_buff *skb, __u8 direction) {
    const __u32 first = 0;
    const struct gate_settings *set = bpf_map_lookup_elem(&settings, &first);
    struct gate_processor *here = bpf_map_lookup_elem(&processors, &first);
    if (!set || !here)
        return TC_ACT_UNSPEC;
    struct packet packet = {.here = here, .direction = direction, .segments = 1};
    packet.is_back = direction == GATE_UP && take_mark_off(skb, set);
    /* A beat may be younger than the time. */
    const bool attended = (__s64)(coarse_now(here) - set->beat_ns) <= (__s64)GATE_BEAT_NS;
    const bool open = !attended && !set->fail_closed;
    if (open && !set->unattended && !packet.is_back)
        return pass(GATE_COUNT_NOBODY, &packet);
    int result = parse_frame(skb, &packet);
    blur(&packet);
    count_segments(skb, &packet);
    if (packet.is_back)
        note_back(skb, &packet, set->back_index);
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

/* At the device into which avcore writes packets that were held: each goes back to where it was
 * taken, as if it had come in there. */
SEC("tc")
int jorn_back(struct __sk_buff *skb) {
    const __u32 first = 0;
    const struct gate_settings *set = bpf_map_lookup_elem(&settings, &first);
    struct gate_back to;
    if (skb->mark)
        return run_lap(skb);
    if (!set || skb->len <= ETH_HLEN + sizeof to)
        return TC_ACT_SHOT;
    const __u32 size = skb->len - sizeof to;
    if (bpf_skb_load_bytes(skb, size, &to, sizeof to) || bpf_skb_change_tail(skb, size, 0))
        return TC_ACT_SHOT;
    skb->mark = set->back_mark;
    return bpf_redirect(to.if_index, BPF_F_INGRESS);
}

char LICENSE[] SEC("license") = "GPL";
