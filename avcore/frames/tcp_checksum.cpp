#include "avcore/frames/tcp_checksum.h"

#include "avcore/frames/frame.h"
#include "avcore/frames/header_sizes.h"
#include "avcore/frames/internet_sum.h"
#include "avcore/frames/ipv6_frame.h"
#include "packet/decode/cursor.h"

#include <netinet/in.h>

namespace avcore {
namespace {

constexpr size_t CHECKSUM_OFFSET = 16;
constexpr uint16_t ZERO = 0xFFFF; // what everything together comes to

bool is_damaged(uint64_t addresses, byte_view segment) {
    const uint16_t pseudo_header = folded(addresses + IPPROTO_TCP + segment.size());
    return segment.holds(CHECKSUM_OFFSET + 2) &&
           folded(pseudo_header + internet_sum(segment)) != ZERO &&
           segment.u16(CHECKSUM_OFFSET) != pseudo_header;
}

uint64_t sum_of(const ip_address &address) {
    return internet_sum({address.octets().data(), address.octets().size()});
}

} // namespace

bool has_damaged_segment(std::span<const uint8_t> frame) {
    if (const std::optional<ipv6_packet> packet = find_ipv6_packet(frame)) {
        const bool is_whole = packet->walked && packet->fragment == 0 &&
                              packet->payload.size() == packet->payload_size;
        return is_whole && packet->protocol == IPPROTO_TCP &&
               is_damaged(sum_of(packet->source) + sum_of(packet->destination),
                          {packet->payload.data(), packet->payload.size()});
    }
    const std::span<const uint8_t> bytes = ipv4_packet(frame);
    const byte_view packet(bytes.data(), bytes.size());
    if (packet.u8(9) != IPPROTO_TCP)
        return false;
    const size_t header_size = (packet.u8(0) & 0x0Fu) * size_t{4};
    const bool is_whole = packet.u16(2) == packet.size() && (packet.u16(6) & FRAGMENT_MASK) == 0;
    return folded(internet_sum(packet.first(header_size))) != ZERO ||
           (is_whole &&
            is_damaged(internet_sum(packet.from(12).first(8)), packet.from(header_size)));
}

} // namespace avcore
