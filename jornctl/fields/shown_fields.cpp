#include "jornctl/fields/shown_fields.h"

#include <cstdio>

namespace jornctl {

ordered_json mac_address::words(const uint8_t (&from)[6]) {
    static constexpr uint8_t NONE[6] = {};
    if (memcmp(from, NONE, sizeof from) == 0)
        return {};
    char shown[sizeof from * 3];
    snprintf(shown, sizeof shown, "%02X:%02X:%02X:%02X:%02X:%02X", from[0], from[1], from[2],
             from[3], from[4], from[5]);
    return shown;
}

ordered_json ipv6_address::words(const uint8_t (&from)[16]) {
    if (memcmp(from, &in6addr_any, sizeof from) == 0)
        return {};
    char shown[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, from, shown, sizeof shown);
}

// Those that the daemon compares with a policy's.
ordered_json examined_categories(const urlf_answer &from) {
    ordered_json said = ordered_json::array();
    for (int32_t i = 0; i < static_cast<int32_t>(URLF_CATEGORIES) && i <= from.category_count; ++i)
        said.push_back(web_category::words(from.categories[i]));
    return said;
}

} // namespace jornctl
