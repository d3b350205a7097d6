/* Token buckets. */
#pragma once

#include "avcore/gate/kernel/flows.h"

#define NS_PER_SECOND 1000000000ull

struct locked_bucket {
    struct bpf_spin_lock lock;
    __u32 reserved;
    struct gate_tokens bucket;
};

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
    const __u64 now = monotonic_now();
    bpf_spin_lock(&locked->lock);
    const bool enough = take_tokens(&locked->bucket, a_second, burst, cost, now);
    bpf_spin_unlock(&locked->lock);
    return enough;
}
