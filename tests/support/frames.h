// Frames, built from the outside in: ethernet(0x0800, ipv4(17, udp(53, 1024))). Checksums stay
// zero, for nobody here looks at them. Addresses and ports are in host byte order.
#pragma once

#include "core/text/text.h"
#include "platform/records.h"

#include <arpa/inet.h>
#include <cstdint>
#include <pcap/pcap.h>
#include <string>
#include <string_view>

using octets = std::basic_string<uint8_t>;

// An address as text in network byte order; of "" 0.
inline uint32_t ip(const std::string &text) {
    uint32_t address_be = 0;
    inet_pton(AF_INET, text.c_str(), &address_be);
    return address_be;
}

inline octets be16(size_t value) {
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

inline octets be32(uint32_t value) {
    return be16(value >> 16) + be16(value);
}

inline octets octets_of(std::string_view text) {
    return {text.begin(), text.end()};
}

// The Internet checksum's sum.
inline uint16_t folded_sum(octets words) {
    words += octets(words.size() % 2, 0);
    size_t sum = 0;
    for (size_t i = 0; i < words.size(); i += 2)
        sum += static_cast<size_t>(words[i] << 8 | words[i + 1]);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

// From the client, or to it.
inline octets ethernet(unsigned type, const octets &payload, bool from_client = true) {
    const octets client = {2, 0, 0, 0, 0, 12};
    const octets server = {2, 0, 0, 0, 0, 5};
    return (from_client ? server + client : client + server) + be16(type) + payload;
}

inline octets vlan(unsigned type, const octets &payload, bool from_client = true) {
    return ethernet(0x8100, be16(100) + be16(type) + payload, from_client);
}

inline octets pppoe(unsigned ppp_protocol, const octets &packet, bool from_client = true) {
    return ethernet(0x8864,
                    octets{0x11, 0, 0, 1} + be16(packet.size() + 2) + be16(ppp_protocol) + packet,
                    from_client);
}

struct ipv4_words {
    uint32_t src = 0x0A01000C; // 10.1.0.12
    uint32_t dst = 0xC0000205; // 192.0.2.5
    unsigned fragment = 0;     // flags and offset
    octets options = {};       // a multiple of four bytes
};

inline octets ipv4(uint8_t protocol, const octets &payload, const ipv4_words &words = {}) {
    const size_t header_size = 20 + words.options.size();
    return octets{static_cast<uint8_t>(0x40 | header_size / 4), 0} +
           be16(header_size + payload.size()) + be16(1) + be16(words.fragment) +
           octets{64, protocol, 0, 0} + be32(words.src) + be32(words.dst) + words.options + payload;
}

inline octets tcp(unsigned src_port, unsigned dst_port, std::string_view data = {},
                  uint8_t flags = 0x18, uint32_t seq = 1, uint32_t ack = 1) {
    return be16(src_port) + be16(dst_port) + be32(seq) + be32(ack) + octets{0x50, flags} +
           be16(512) + be32(0) + octets_of(data);
}

inline octets udp(unsigned src_port, unsigned dst_port, std::string_view data = {}) {
    return be16(src_port) + be16(dst_port) + be16(8 + data.size()) + be16(0) + octets_of(data);
}

inline octets icmp_echo(bool request = true, std::string_view data = {}) {
    return be32(request ? 0x08000000 : 0) + be32(1) + octets_of(data);
}

inline octets arp(uint32_t sender = 0, uint32_t wanted = 0) {
    return octets{0, 1, 8, 0, 6, 4, 0, 1} + octets(6, 0) + be32(sender) + octets(6, 0) +
           be32(wanted);
}

// A 302 response whose Location names a server by its address.
inline std::string http_redirect_to(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    const uint32_t address_be = htonl(address);
    return std::string("HTTP/1.1 302 Found\r\nServer: gateway\r\n"
                       "Date: Mon, 06 Jan 2025 10:00:00 GMT\r\nLocation: http://") +
           inet_ntop(AF_INET, &address_be, text, sizeof text) +
           "/login\r\nContent-Length: 0\r\n\r\n";
}

inline octets with_trailer(const octets &frame, const av_pkt_trailer &trailer = {}) {
    return frame + octets(reinterpret_cast<const uint8_t *>(&trailer), sizeof trailer);
}

inline pcap_pkthdr capture_header(const octets &frame) {
    pcap_pkthdr header = {};
    header.caplen = header.len = static_cast<uint32_t>(frame.size());
    return header;
}
