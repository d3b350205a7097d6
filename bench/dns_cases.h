// The cases of naming by DNS: packets whose addresses the cache knows, doesn't know or learns, and
// the hash table under addresses that somebody chose to fall into one chain.
#pragma once

#include <cstdint>

inline constexpr uint32_t DNS_CACHE_CAPACITY = 16'385; // entries of a full cache

enum class named_side { destination, source, neither };

void empty_dns_cache();

// Makes an empty cache and fills it with `entries` names: those of the first flows, on the side
// that is named, or of addresses that no flow has.
void fill_dns_cache(uint32_t entries, named_side side);

void register_dns_cases();
