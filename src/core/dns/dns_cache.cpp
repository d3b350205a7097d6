#include "core/dns/dns_cache.h"

#include "core/base/hash_table.h"
#include "core/base/log.h"
#include "core/base/reply.h"
#include "core/dns/dns_listing.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int32_t FULL_ABOVE = 16384; // entries
constexpr uint32_t AGE_STEP_S = 5;
constexpr uint32_t AGE_LIMIT_S = 600'000;

bool full(const hash_table &cache) {
    return cache.count > FULL_ABOVE;
}

void age_entry(void *object, void *cache) {
    auto *entry = static_cast<dns_cache_entry *>(object);
    auto *table = static_cast<hash_table *>(cache);
    entry->age += AGE_STEP_S;
    if (full(*table) && entry->age > AGE_LIMIT_S)
        hash_table_delete(table, entry);
}

struct listing {
    line_buffer &text;
    int number;
};

// In one piece: the listing ends with the last entry that fits.
void list_entry(void *object, void *argument) {
    const auto *entry = static_cast<const dns_cache_entry *>(object);
    auto *list = static_cast<listing *>(argument);
    if (list->text.has_ended())
        return;
    char piece[512];
    line_buffer listed(piece, sizeof piece);
    listed.cell(LISTED_NUMBER, ++list->number);
    listed.cell(DNS_LISTING.ip, ipv4_text(entry->ip).c_str());
    listed.cell(DNS_LISTING.app_name, printable_text(field_text(entry->name)).c_str());
    listed.cell(DNS_LISTING.age, static_cast<int>(entry->age));
    list->text.append(listed.text());
}

void list_cache(line_buffer &text) {
    listing list = {text, 0};
    text.cell(DNS_LISTING.title);
    text.cell(LISTED_TOTAL, jorn_state.dns_cache->count);
    hash_table_walk(jorn_state.dns_cache, list_entry, nullptr, &list);
}

} // namespace

int jorn_dnscache_hash_table_init() {
    int error = 0;
    hash_table *table = hash_table_create("JORN DNS CACHE HASH TABLE", sizeof(dns_cache_entry::ip),
                                          offsetof(dns_cache_entry, ip), &error);
    if (table == nullptr) {
        JORN_ERROR("cannot create hash table\n");
        return DNS_CACHE_ERR_TABLE;
    }
    hash_table_set_options(table, nullptr, nullptr, nullptr, nullptr, &error);
    if (error != 0) {
        JORN_ERROR("set hash table options failed\n");
        hash_table_free(table);
        return DNS_CACHE_ERR_TABLE;
    }
    jorn_state.dns_cache = table;
    return 0;
}

void dns_cache_free() {
    hash_table_clear(jorn_state.dns_cache);
    hash_table_free(jorn_state.dns_cache);
    jorn_state.dns_cache = nullptr;
}

int jorn_dnscache_add(dns_cache_entry *entry) {
    if (entry == nullptr)
        return DNS_CACHE_ERR_ARGUMENT;
    if (full(*jorn_state.dns_cache))
        return DNS_CACHE_ERR_FULL;
    terminate(entry->name);
    return hash_table_insert(jorn_state.dns_cache, entry) == 0 ? 0 : DNS_CACHE_ERR_TABLE;
}

int learn_dns_name(uint32_t ip, std::string_view name) {
    // Asked before an entry is made: a full cache meets a new name with every packet.
    if (full(*jorn_state.dns_cache))
        return DNS_CACHE_ERR_FULL;
    auto *entry = static_cast<dns_cache_entry *>(calloc(1, sizeof(dns_cache_entry)));
    if (entry == nullptr)
        return DNS_CACHE_ERR_MEMORY;
    entry->ip = ip;
    copy_text(entry->name, name);
    const int result = jorn_dnscache_add(entry);
    if (result != 0)
        free(entry);
    return result;
}

char *jorn_dnscache_find(uint32_t ip, char *buffer, size_t size) {
    auto *entry =
        static_cast<dns_cache_entry *>(hash_table_find(jorn_state.dns_cache, &ip, nullptr));
    if (entry == nullptr)
        return nullptr;
    entry->age = 0;
    const size_t copied = std::min(size, sizeof entry->name);
    memcpy(buffer, entry->name, copied);
    memset(buffer + copied, 0, size - copied);
    return buffer;
}

void jorn_dnscache_age() {
    hash_table_walk(jorn_state.dns_cache, age_entry, nullptr, jorn_state.dns_cache);
}

int jorn_dnscache_show(int fd) {
    return answer(fd, list_cache);
}
