#include "avcore/frames/ipv6_frame.h"

#include "avcore/frames/header_sizes.h"
#include "avcore/frames/internet_sum.h"
#include "avcore/frames/ipv6_extension.h"
#include "avcore/frames/network_order.h"
#include "packet/decode/cursor.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <netinet/in.h>

namespace avcore {
namespace {

constexpr size_t ETHERNET_HEADER_SIZE = 14;
constexpr size_t VLAN_TAG_SIZE = 4;
constexpr size_t PPPOE_HEADER_SIZE = 8; // with the PPP protocol field
constexpr size_t UDP_LENGTH_AT = 4;
constexpr size_t TOTAL_SIZE_MAX = 65'535;
constexpr unsigned EXTENSIONS_MAX = 8;
constexpr uint16_t ETHER_TYPE_IPV4 = 0x0800;
constexpr uint16_t ETHER_TYPE_IPV6 = 0x86DD;
constexpr uint16_t ETHER_TYPE_VLAN = 0x8100;
constexpr uint16_t ETHER_TYPE_PPPOE = 0x8864;
constexpr uint16_t PPP_IPV4 = 0x0021;
constexpr uint16_t PPP_IPV6 = 0x0057;

// ICMPv6 (RFC 4443) to ICMP.
constexpr struct {
    uint8_t of_ipv6;
    uint8_t of_ipv4;
} ECHO_TYPES[] = {{128, 8}, {129, 0}};

// Where the packet starts; 0 when there is none.
size_t packet_offset(byte_view frame, bool &in_pppoe) {
    size_t offset = ETHERNET_HEADER_SIZE;
    if (frame.u16(offset - 2) == ETHER_TYPE_VLAN)
        offset += VLAN_TAG_SIZE;
    const uint16_t type = frame.u16(offset - 2);
    in_pppoe = type == ETHER_TYPE_PPPOE;
    if (in_pppoe)
        offset += PPPOE_HEADER_SIZE;
    return type == ETHER_TYPE_IPV6 || (in_pppoe && frame.u16(offset - 2) == PPP_IPV6) ? offset : 0;
}

ip_address address_at(byte_view packet, size_t offset) {
    std::array<uint8_t, ip_address::SIZE> octets = {};
    packet.copy(offset, octets.data(), octets.size());
    return ip_address(octets);
}

// Returns how many bytes of `rest` the headers take.
size_t walk_extensions(ipv6_packet &packet, byte_view rest) {
    size_t taken = 0;
    for (unsigned headers = 0; headers < EXTENSIONS_MAX && is_extension(packet.protocol);
         ++headers) {
        const size_t size = extension_size(packet.protocol, rest);
        if (!rest.holds(size))
            break;
        if (packet.protocol == IPPROTO_FRAGMENT) {
            const unsigned more = (rest.u16(2) & 1) != 0 ? MORE_FRAGMENTS : 0;
            packet.fragment = static_cast<uint16_t>(rest.u16(2) >> 3 | more);
            packet.identifier = rest.u16(6);
        }
        packet.protocol = rest.u8(0);
        rest = rest.from(size);
        taken += size;
        if ((packet.fragment & FRAGMENT_OFFSET_MASK) != 0)
            break; // what follows is no header
    }
    packet.walked = !is_extension(packet.protocol);
    return taken;
}

void write_link(const ipv6_packet &packet, size_t total_size, std::vector<uint8_t> &frame) {
    frame.assign(packet.link.begin(), packet.link.end());
    uint8_t *end = frame.data() + frame.size();
    put_u16(end - 2, packet.in_pppoe ? PPP_IPV4 : ETHER_TYPE_IPV4);
    if (packet.in_pppoe)
        put_u16(end - 4, std::min(total_size + 2, TOTAL_SIZE_MAX));
}

// An error, or what a link lives by (RFC 4890, 4.4): that has no counterpart in ICMP.
bool is_of_ipv6_alone(uint8_t type) {
    return (type >= 1 && type <= 4) || (type >= 130 && type <= 137) ||
           (type >= 141 && type <= 143) || type == 148 || type == 149 ||
           (type >= 151 && type <= 153);
}

// The type in ICMP; none for any other payload, and where the type isn't in this fragment.
std::optional<uint8_t> icmp_type(const ipv6_packet &packet) {
    if (packet.protocol != IPPROTO_ICMPV6 || packet.payload.empty() ||
        (packet.fragment & FRAGMENT_OFFSET_MASK) != 0)
        return std::nullopt;
    const uint8_t type = packet.payload[0];
    for (const auto &echo : ECHO_TYPES) {
        if (echo.of_ipv6 == type)
            return echo.of_ipv4;
    }
    return is_of_ipv6_alone(type) ? std::nullopt : std::optional(type);
}

// Receivers take a datagram that says no length for one as long as its packet (RFC 2675, 4).
bool is_datagram_without_length(const ipv6_packet &packet) {
    const byte_view datagram(packet.payload.data(), packet.payload.size());
    return packet.protocol == IPPROTO_UDP && (packet.fragment & FRAGMENT_OFFSET_MASK) == 0 &&
           datagram.holds(UDP_HEADER_SIZE) && datagram.u16(UDP_LENGTH_AT) == 0;
}

} // namespace

std::optional<ipv6_packet> find_ipv6_packet(std::span<const uint8_t> frame) {
    const byte_view bytes(frame.data(), frame.size());
    ipv6_packet packet;
    const size_t offset = packet_offset(bytes, packet.in_pppoe);
    const byte_view header = offset != 0 ? bytes.from(offset) : byte_view();
    if (!header.holds(IPV6_HEADER_SIZE) || header.u8(0) >> 4 != 6)
        return std::nullopt;
    packet.link = frame.first(offset);
    packet.traffic_class = static_cast<uint8_t>(header.u16(0) >> 4);
    packet.protocol = header.u8(6);
    packet.hop_limit = header.u8(7);
    packet.source = address_at(header, 8);
    packet.destination = address_at(header, 24);

    // Without a length it is a jumbogram, or one that the network card cuts: the frame's end
    // counts.
    const byte_view captured = header.from(IPV6_HEADER_SIZE);
    const size_t size = header.u16(4) != 0 ? header.u16(4) : captured.size();
    const byte_view rest = captured.first(size);
    const size_t taken = walk_extensions(packet, rest);
    packet.payload = frame.subspan(offset + IPV6_HEADER_SIZE + taken, rest.size() - taken);
    packet.payload_size = size - taken;
    return packet;
}

void write_as_ipv4(const ipv6_packet &packet, uint32_t source_be, uint32_t destination_be,
                   std::vector<uint8_t> &frame) {
    const size_t total_size = std::min(IPV4_HEADER_SIZE + packet.payload_size, TOTAL_SIZE_MAX);
    const std::optional<uint8_t> icmp = icmp_type(packet);
    std::array<uint8_t, IPV4_HEADER_SIZE> header = {0x45, packet.traffic_class};
    put_u16(&header[2], total_size);
    put_u16(&header[4], packet.identifier);
    put_u16(&header[6], packet.fragment);
    header[8] = packet.hop_limit;
    header[9] = icmp ? uint8_t{IPPROTO_ICMP} : packet.protocol;
    memcpy(&header[12], &source_be, sizeof source_be);
    memcpy(&header[16], &destination_be, sizeof destination_be);
    const uint16_t sum = folded(internet_sum({header.data(), header.size()}));
    put_u16(&header[10], static_cast<uint16_t>(~sum));

    write_link(packet, total_size, frame);
    frame.insert(frame.end(), header.begin(), header.end());
    frame.insert(frame.end(), packet.payload.begin(), packet.payload.end());
    uint8_t *payload = frame.data() + packet.link.size() + IPV4_HEADER_SIZE;
    if (icmp)
        *payload = *icmp;
    if (is_datagram_without_length(packet))
        put_u16(payload + UDP_LENGTH_AT, total_size - IPV4_HEADER_SIZE);
}

} // namespace avcore
