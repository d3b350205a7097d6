// The DNS cache: the name under which an IPv4 address was reached, so that later packets to or from
// it are named without a question to the platform.
//
// One hash table in the state block, created at start-up before the capture opens. The packet path
// looks up and learns, the event loop's idle time-out ages, a command lists. The clock is the idle
// time: it stands still while traffic flows. A full cache takes nothing new; only entries that
// nobody has asked for in 600,000 idle seconds make room.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct dns_cache_entry {
    uint32_t ip;   // network byte order; the key
    char name[64]; // NUL-terminated, the rest zeros
    uint32_t age;  // idle seconds since the entry was made or last found
};
static_assert(offsetof(dns_cache_entry, ip) == 0);

inline constexpr int DNS_CACHE_ERR_ARGUMENT = -1; // no entry given
inline constexpr int DNS_CACHE_ERR_MEMORY = -2;
inline constexpr int DNS_CACHE_ERR_TABLE = -7; // no table, or the address has an entry
inline constexpr int DNS_CACHE_ERR_FULL = -8;

// Creates the table. Returns 0 or -7.
int jorn_dnscache_hash_table_init();

// Releases the table, where there is one, with its entries.
void dns_cache_free();

// Takes an entry made by calloc and cuts its name to 63 characters. Returns 0, -1, -7 or -8; after
// anything but 0 the caller keeps and frees its entry.
int jorn_dnscache_add(dns_cache_entry *entry);

// Makes an entry and adds it; what the cache refuses is gone. Returns the result of the addition,
// or -2.
int learn_dns_name(uint32_t ip, std::string_view name);

// Copies the name of an address into `buffer`, at most `size` bytes, zeros behind it, and restarts
// the entry's age. Returns `buffer`, or none for an address without entry. A buffer of 64 bytes
// holds any name with its NUL.
char *jorn_dnscache_find(uint32_t ip, char *buffer, size_t size);

// One time-out of five idle seconds has passed.
void jorn_dnscache_age();

// Command 10: writes the listing to a command connection. Returns 0.
int jorn_dnscache_show(int fd);
