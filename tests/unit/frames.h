// Frames for the unit tests, built from the outside in: ethernet(0x0800, ipv4(17, udp(53, 1024))).
#pragma once

#include "packet/records/context.h"

#include <cstdint>
#include <string>
#include <string_view>

using octets = std::basic_string<uint8_t>;

inline octets be16(unsigned value) {
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

inline octets ethernet(unsigned type, const octets &payload) {
    return octets{2, 0, 0, 0, 0, 5, 2, 0, 0, 0, 0, 12} + be16(type) + payload;
}

inline octets vlan(unsigned type, const octets &payload) {
    return ethernet(0x8100, be16(100) + be16(type) + payload);
}

inline octets pppoe(unsigned ppp_protocol, const octets &packet) {
    return ethernet(0x8864, octets{0x11, 0, 0, 1} + be16(static_cast<unsigned>(packet.size() + 2)) +
                                be16(ppp_protocol) + packet);
}

// 10.1.0.12 to 192.0.2.5; `options` are a multiple of four bytes.
inline octets ipv4(uint8_t protocol, const octets &payload, unsigned fragment = 0,
                   const octets &options = {}) {
    const size_t header_size = 20 + options.size();
    return octets{static_cast<uint8_t>(0x40 | header_size / 4), 0} +
           be16(static_cast<unsigned>(header_size + payload.size())) + be16(1) + be16(fragment) +
           octets{64, protocol, 0, 0, 10, 1, 0, 12, 192, 0, 2, 5} + options + payload;
}

inline octets tcp(unsigned src_port, unsigned dst_port, std::string_view data = {}) {
    return be16(src_port) + be16(dst_port) + octets(8, 0) + octets{0x50, 0x18} + octets(6, 0) +
           octets(data.begin(), data.end());
}

inline octets udp(unsigned src_port, unsigned dst_port) {
    return be16(src_port) + be16(dst_port) + be16(8) + be16(0);
}

inline octets arp() {
    return octets{0, 1, 8, 0, 6, 4, 0, 1} + octets(20, 0);
}

inline octets with_trailer(const octets &frame, const av_pkt_trailer &trailer = {}) {
    return frame + octets(reinterpret_cast<const uint8_t *>(&trailer), sizeof trailer);
}
