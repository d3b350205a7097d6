#include "dns_cases.h"

#include "core/base/hash_table.h"
#include "core/dns/dns_cache.h"
#include "core/state/state.h"
#include "flows.h"
#include "support/fake_platform.h"

#include <algorithm>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr uint32_t STRANGERS = 0x2D000001;
constexpr size_t DST_IP_OFFSET = 30;
constexpr uint32_t FLOWS = 1024; // more than one look-up's memory stays near

struct dns_case {
    const char *name;
    uint32_t entries;
    named_side side;
};

constexpr dns_case CASES[] = {
    {"dns/by_destination", DNS_CACHE_CAPACITY, named_side::destination},
    {"dns/by_source", DNS_CACHE_CAPACITY, named_side::source},
    {"dns/two_misses_full", DNS_CACHE_CAPACITY, named_side::neither},
};

std::string name_of_flow(uint32_t flow) {
    return "Media" + std::to_string(flow) + ".cdn-" + std::to_string(flow % 97) + ".example";
}

void time_naming(benchmark::State &state, const dns_case &wanted) {
    fill_dns_cache(wanted.entries, wanted.side);
    const std::vector<octets> frames = flow_frames(FLOWS, flow_frame, plain_trailer());
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state)
        judge(frames[next++ % FLOWS]);
    empty_dns_cache();
}

fake_dns_answer always_named(uint32_t) {
    return {"www.learnt.example"};
}

// Every packet has another destination, which the platform names and the cache takes in.
void time_learning(benchmark::State &state) {
    platform.dns_answer = always_named;
    empty_dns_cache();
    octets frame = with_trailer(flow_frame(0), plain_trailer());
    uint32_t learnt = 0;
    for ([[maybe_unused]] auto _ : state) {
        if (learnt == DNS_CACHE_CAPACITY) {
            state.PauseTiming();
            empty_dns_cache();
            learnt = 0;
            state.ResumeTiming();
        }
        const uint32_t address_be = htonl(SERVERS + learnt++);
        memcpy(frame.data() + DST_IP_OFFSET, &address_be, sizeof address_be);
        judge(frame);
    }
    platform.dns_answer = nullptr;
    empty_dns_cache();
}

// Distinct addresses in network byte order: any, or such as the table's public hash puts into one
// chain.
std::vector<uint32_t> make_keys(bool crafted) {
    std::vector<uint32_t> keys;
    std::mt19937 random(20250106);
    while (keys.size() < DNS_CACHE_CAPACITY) {
        const auto key = static_cast<uint32_t>(random());
        if (!crafted || is_in_crafted_chain(key))
            keys.push_back(key);
        if (keys.size() == DNS_CACHE_CAPACITY) {
            std::sort(keys.begin(), keys.end());
            keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
        }
    }
    std::shuffle(keys.begin(), keys.end(), random);
    return keys;
}

std::vector<dns_cache_entry *> make_entries(const std::vector<uint32_t> &keys) {
    std::vector<dns_cache_entry *> entries;
    for (const uint32_t key : keys) {
        auto *entry = static_cast<dns_cache_entry *>(calloc(1, sizeof(dns_cache_entry)));
        entry->ip = key;
        entries.push_back(entry);
    }
    return entries;
}

void time_find(benchmark::State &state, bool crafted) {
    const std::vector<uint32_t> keys = make_keys(crafted);
    empty_dns_cache();
    hash_table *table = jorn_state.dns_cache;
    for (dns_cache_entry *entry : make_entries(keys))
        hash_table_insert(table, entry);
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        int error = 0;
        benchmark::DoNotOptimize(hash_table_find(table, &keys[next++ % keys.size()], &error));
        if (error != 0)
            state.SkipWithError("a key wasn't found");
    }
    empty_dns_cache();
}

void time_insert(benchmark::State &state, bool crafted) {
    const std::vector<uint32_t> keys = make_keys(crafted);
    empty_dns_cache();
    std::vector<dns_cache_entry *> entries = make_entries(keys);
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        if (next == entries.size()) {
            state.PauseTiming();
            empty_dns_cache();
            entries = make_entries(keys);
            next = 0;
            state.ResumeTiming();
        }
        if (hash_table_insert(jorn_state.dns_cache, entries[next++]) != 0)
            state.SkipWithError("an insert was refused");
    }
    for (; next < entries.size(); ++next)
        free(entries[next]);
    empty_dns_cache();
}

} // namespace

void empty_dns_cache() {
    if (jorn_state.dns_cache != nullptr) {
        hash_table_clear(jorn_state.dns_cache);
    } else if (jorn_dnscache_hash_table_init() != 0) {
        fputs("no memory for the DNS cache\n", stderr);
        exit(EXIT_FAILURE);
    }
}

void fill_dns_cache(uint32_t entries, named_side side) {
    empty_dns_cache();
    const uint32_t first = side == named_side::destination ? SERVERS
                           : side == named_side::source    ? CLIENTS
                                                           : STRANGERS;
    for (uint32_t n = 0; n < entries; ++n) {
        if (learn_dns_name(htonl(first + n), name_of_flow(n)) != 0) {
            fputs("the DNS cache refused an entry\n", stderr);
            exit(EXIT_FAILURE);
        }
    }
}

void register_dns_cases() {
    for (const dns_case &wanted : CASES)
        benchmark::RegisterBenchmark(wanted.name, time_naming, wanted);
    benchmark::RegisterBenchmark("dns/learnt", time_learning);
    benchmark::RegisterBenchmark("hash/find_random", time_find, false);
    benchmark::RegisterBenchmark("hash/find_crafted", time_find, true);
    benchmark::RegisterBenchmark("hash/insert_random", time_insert, false);
    benchmark::RegisterBenchmark("hash/insert_crafted", time_insert, true);
}
