#include "avcore/frames/wire_packets.h"

#include "avcore/frames/frame.h"
#include "avcore/frames/header_sizes.h"
#include "avcore/frames/internet_sum.h"
#include "avcore/frames/ipv6_extension.h"
#include "avcore/frames/network_order.h"
#include "packet/decode/cursor.h"

#include <netinet/in.h>

namespace avcore {
namespace {

constexpr size_t TCP_CHECKSUM_AT = 16;
constexpr size_t UDP_CHECKSUM_AT = 6;
constexpr uint8_t FIN_PSH = 0x09;
constexpr uint8_t CWR = 0x80;

byte_view part(std::span<const uint8_t> bytes, size_t from, size_t to) {
    return byte_view(bytes.data(), bytes.size()).first(to).from(from);
}

bool is_tcp_or_udp(const wire_layout &layout) {
    return layout.protocol == IPPROTO_TCP || layout.protocol == IPPROTO_UDP;
}

bool holds_together(const wire_layout &layout, size_t frame_size) {
    const size_t ip_size = layout.ipv6 ? IPV6_HEADER_SIZE : IPV4_HEADER_SIZE;
    const size_t header_size = layout.protocol == IPPROTO_TCP ? TCP_HEADER_SIZE : UDP_HEADER_SIZE;
    return layout.network <= layout.transport && layout.transport - layout.network >= ip_size &&
           layout.transport <= layout.payload && layout.payload - layout.transport >= header_size &&
           layout.payload <= layout.end && layout.end <= frame_size;
}

// Or its chain of headers ends before `transport`.
bool is_fragment(std::span<const uint8_t> frame, const wire_layout &layout) {
    const byte_view headers = part(frame, layout.network, layout.transport);
    if (!layout.ipv6)
        return (headers.u16(6) & FRAGMENT_MASK) != 0;
    uint8_t protocol = headers.u8(6);
    byte_view rest = headers.from(IPV6_HEADER_SIZE);
    while (rest.size() != 0 && is_extension(protocol) && protocol != IPPROTO_FRAGMENT) {
        const size_t size = extension_size(protocol, rest);
        protocol = rest.u8(0);
        rest = rest.from(size);
    }
    return rest.size() != 0;
}

size_t checksum_at(const wire_layout &layout) {
    return layout.transport + (layout.protocol == IPPROTO_TCP ? TCP_CHECKSUM_AT : UDP_CHECKSUM_AT);
}

uint16_t checksum_in(std::span<const uint8_t> packet, const wire_layout &layout) {
    return part(packet, checksum_at(layout), layout.end).u16(0);
}

// With the addresses in IP's header even where a routing header names another destination: so does
// the kernel where it joins packets.
uint16_t pseudo_header_sum(std::span<const uint8_t> packet, const wire_layout &layout) {
    const size_t from = layout.network + (layout.ipv6 ? 8 : 12);
    const size_t size = layout.ipv6 ? 32 : 8;
    return folded(internet_sum(part(packet, from, from + size)) + layout.protocol +
                  (layout.end - layout.transport));
}

void write_checksum(std::span<uint8_t> packet, const wire_layout &layout) {
    uint8_t *field = &packet[checksum_at(layout)];
    put_u16(field, 0);
    const uint16_t sum = folded(pseudo_header_sum(packet, layout) +
                                internet_sum(part(packet, layout.transport, layout.end)));
    // UDP's 0 would say that there is none.
    const bool is_none = layout.protocol == IPPROTO_UDP && sum == 0xFFFF;
    put_u16(field, is_none ? sum : static_cast<uint16_t>(~sum));
}

void write_ip_header(std::span<uint8_t> packet, const wire_layout &layout, size_t number) {
    uint8_t *header = &packet[layout.network];
    const size_t size = packet.size() - layout.network;
    if (layout.ipv6) {
        put_u16(header + 4, size - IPV6_HEADER_SIZE);
        return;
    }
    const byte_view view = part(packet, layout.network, layout.transport);
    put_u16(header + 2, size);
    put_u16(header + 4, view.u16(4) + number);
    put_u16(header + 10, 0);
    put_u16(header + 10, static_cast<uint16_t>(~folded(internet_sum(view))));
}

// `at`: where the packet's part begins in the joined payload.
void write_tcp_header(std::span<uint8_t> packet, const wire_layout &layout, size_t at,
                      bool is_last) {
    uint8_t *header = &packet[layout.transport];
    const byte_view view = part(packet, layout.transport, layout.payload);
    const size_t sequence = (size_t{view.u16(4)} << 16 | view.u16(6)) + at;
    put_u16(header + 4, sequence >> 16);
    put_u16(header + 6, sequence);
    if (at != 0)
        header[13] &= static_cast<uint8_t>(~CWR);
    if (!is_last)
        header[13] &= static_cast<uint8_t>(~FIN_PSH);
}

std::vector<std::vector<uint8_t>> cut(std::span<const uint8_t> frame, const wire_layout &layout,
                                      size_t segment_size) {
    const bool is_unchecked =
        layout.protocol == IPPROTO_UDP && !layout.ipv6 && checksum_in(frame, layout) == 0;
    auto packets =
        cut_payload(frame.first(layout.payload),
                    frame.subspan(layout.payload, layout.end - layout.payload), segment_size);
    for (size_t number = 0; number < packets.size(); ++number) {
        std::vector<uint8_t> &packet = packets[number];
        wire_layout its_own = layout;
        its_own.end = packet.size();
        write_ip_header(packet, its_own, number);
        if (layout.protocol == IPPROTO_TCP)
            write_tcp_header(packet, its_own, number * segment_size, number + 1 == packets.size());
        else
            put_u16(&packet[layout.transport + 4], packet.size() - layout.transport);
        if (!is_unchecked)
            write_checksum(packet, its_own);
    }
    return packets;
}

} // namespace

std::vector<std::vector<uint8_t>> wire_packets(std::span<const uint8_t> frame,
                                               const wire_layout &layout, uint16_t segment_size) {
    const bool has_checksum = is_tcp_or_udp(layout) && holds_together(layout, frame.size()) &&
                              !is_fragment(frame, layout);
    if (has_checksum && segment_size != 0 && layout.end - layout.payload > segment_size)
        return cut(frame, layout, segment_size);
    std::vector<std::vector<uint8_t>> packets;
    packets.emplace_back(frame.begin(), frame.end());
    if (has_checksum && checksum_in(frame, layout) == pseudo_header_sum(frame, layout))
        write_checksum(packets.front(), layout);
    return packets;
}

} // namespace avcore
