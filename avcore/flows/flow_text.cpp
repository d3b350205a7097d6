#include "avcore/flows/flow_text.h"

#include <cstdio>
#include <iterator>
#include <span>

namespace avcore {
namespace {

struct protocol_name {
    uint16_t number;
    const char *name;
};
constexpr protocol_name IP_PROTOCOLS[] = {
    {1, "ICMP"}, {2, "IGMP"}, {6, "TCP"},     {17, "UDP"},
    {47, "GRE"}, {50, "ESP"}, {58, "ICMPv6"}, {132, "SCTP"},
};
constexpr protocol_name ETHER_TYPES[] = {
    {0x0800, "IPv4"},  {0x0806, "ARP"},   {0x8035, "RARP"},  {0x8100, "VLAN"}, {0x86DD, "IPv6"},
    {0x8863, "PPPoE"}, {0x8864, "PPPoE"}, {0x888E, "EAPOL"}, {0x88CC, "LLDP"},
};

} // namespace

std::string address_text(const flow_row &row, const endpoint &side) {
    return row.ipv4 ? side.address.text() : mac_text(side.mac);
}

std::string endpoint_text(const flow_row &row, const endpoint &side) {
    return side.port != 0 ? side.address.text_with(side.port) : address_text(row, side);
}

std::string protocol_text(const flow_row &row) {
    const uint16_t number = row.ipv4 ? row.ip_proto : row.ether_type;
    const std::span<const protocol_name> names =
        row.ipv4 ? std::span<const protocol_name>(IP_PROTOCOLS) : ETHER_TYPES;
    for (const protocol_name &entry : names) {
        if (entry.number == number)
            return entry.name;
    }
    char text[16];
    snprintf(text, sizeof text, row.ipv4 ? "IP %u" : "0x%04X", unsigned{number});
    return text;
}

bool shows_own_name(const flow_row &row) {
    return row.own_name_first && !row.own_name.empty();
}

const std::string &application_of(const flow_row &row) {
    return shows_own_name(row) ? row.own_name : row.application;
}

std::string verdict_word(uint32_t verdict) {
    constexpr const char *words[] = {"none", "allow", "white list", "deny", "rate limit", "qos"};
    return verdict < std::size(words) ? words[verdict] : std::to_string(verdict);
}

std::string flow_text(const flow_row &row) {
    const std::string mac = row.ipv4 ? " (" + mac_text(row.client.mac) + ")" : "";
    return endpoint_text(row, row.client) + mac + " to " + endpoint_text(row, row.server) + " (" +
           protocol_text(row) + ")";
}

} // namespace avcore
