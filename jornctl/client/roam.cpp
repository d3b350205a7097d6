#include "jornctl/client/roam.h"

#include "control/records/commands.h"
#include "jornctl/base/failure.h"
#include "platform/records.h"

#include <arpa/inet.h>
#include <charconv>

namespace jornctl {
namespace {

void read_mac(const std::string &text, uint8_t (&mac)[6]) {
    const auto refuse = [&] {
        throw refused("a MAC address looks like 00:1A:2B:3C:4D:5E: \"" + text + '"');
    };
    if (text.size() != sizeof mac * 3 - 1)
        refuse();
    for (size_t i = 0; i < sizeof mac; ++i) {
        const char *digits = text.data() + i * 3;
        const auto [end, error] = std::from_chars(digits, digits + 2, mac[i], 16);
        if (error != std::errc() || end != digits + 2 || (i + 1 < sizeof mac && *end != ':'))
            refuse();
    }
}

// The members of the one family are filled, those of the other stay zero.
void read_address(const std::string &text, uint16_t &family, uint32_t &ipv4, uint8_t (&ipv6)[16]) {
    in_addr found = {};
    if (inet_pton(AF_INET, text.c_str(), &found) == 1) {
        family = ROAM_FAMILY_IPV4;
        ipv4 = found.s_addr;
    } else if (inet_pton(AF_INET6, text.c_str(), ipv6) == 1) {
        family = ROAM_FAMILY_IPV6;
    } else {
        throw refused("neither an IPv4 nor an IPv6 address: \"" + text + '"');
    }
}

} // namespace

command roam_command(const roaming &told) {
    roam_notify notify = {};
    read_mac(told.station, notify.sta_mac);
    read_mac(told.to, notify.to_ap_mac);
    read_address(told.address, notify.to_ap_family, notify.to_ap_ipv4, notify.to_ap_ipv6);
    if (!told.from.empty())
        read_mac(told.from, notify.from_ap_mac);
    if (!told.from_address.empty())
        read_address(told.from_address, notify.from_ap_family, notify.from_ap_ipv4,
                     notify.from_ap_ipv6);
    return {CMD_ROAM_NOTIFY_REQ, record_bytes(notify)};
}

} // namespace jornctl
