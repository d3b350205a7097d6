#include "core/dns/dns_look_up.h"

#include "core/dns/dns_cache.h"
#include "platform/psms.h"

dns_look_up look_up_dns_name(uint32_t address_be, std::span<char> name, log_origin asking) {
    name.front() = '\0';
    if (address_be == 0)
        return dns_look_up::not_asked;
    if (jorn_dnscache_find(address_be, name.data(), sizeof dns_cache_entry::name) != nullptr)
        return dns_look_up::named;
    uint32_t word1 = 0; // means nothing to us
    uint32_t word2 = 0;
    uint32_t word3 = 0;
    const int result = psms_dnscache_get_dn_by_ip(
        address_be, name.data(), static_cast<unsigned>(name.size()), &word1, &word2, &word3);
    if (result == 0 && word2 != 0 && word3 != 0) {
        name.back() = '\0';
        learn_dns_name(address_be, name.data());
        return dns_look_up::named;
    }
    name.front() = '\0';
    if (result == 0)
        return dns_look_up::no_name;
    JORN_SAY(JORN_LOG_ERROR, asking, "psms_get_dn_by_ip return error\n");
    return dns_look_up::failed;
}
