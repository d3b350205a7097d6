// A message of another access point, as the bus hands it over: a byte that says how long the
// sender's name is, the name, the payload.
#include "core/base/hash_table.h"
#include "core/dns/dns_cache.h"
#include "platform/records.h"
#include "roaming/roam.h"
#include "support/fresh_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

void check_entry(void *object, void *) {
    const auto *entry = static_cast<const dns_cache_entry *>(object);
    if (memchr(entry->name, '\0', sizeof entry->name) == nullptr)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fresh_state();
    silence_log(1);
    if (size == 0 || jorn_dnscache_hash_table_init() != 0)
        return 0;
    const size_t name_length = std::min<size_t>(data[0] % 64, size - 1);
    const std::string sender(reinterpret_cast<const char *>(data) + 1, name_length);
    // Of its own, so that a read behind its end is seen.
    const std::vector<uint8_t> payload(data + 1 + name_length, data + size);
    const wdlm_message message = {sender.c_str(), ROAM_TOPIC, payload.data(), payload.size()};
    jorn_prcs_RflowRoamInfo(nullptr, &message);
    if (jorn_state.dns_cache->count > static_cast<int32_t>(ROAM_FLOWS_MAX))
        abort();
    hash_table_walk(jorn_state.dns_cache, check_entry, nullptr, nullptr);
    dns_cache_free();
    return 0;
}
