// The flows of the benchmarks, each from a client of its own to a server of its own, and their way
// through the packet path in memory.
#pragma once

#include "core/base/hash_table.h"
#include "core/text/text.h"
#include "packet/capture.h"
#include "packet/decode/decode.h"
#include "packet/process.h"
#include "support/frames.h"

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

inline constexpr uint32_t CLIENTS = 0x0A000002;
inline constexpr uint32_t SERVERS = 0xC6120001;

// The IPv4 packet of flow number `flow`, client to server.
inline octets flow_packet(uint32_t flow, uint8_t protocol = IPPROTO_TCP, uint16_t port = 443) {
    const std::string payload(64, 'x');
    const octets segment = protocol == IPPROTO_TCP ? tcp(40000 + flow, port, payload, 0x10)
                                                   : udp(40000 + flow, port, payload);
    return ipv4(protocol, segment, {.src = CLIENTS + flow, .dst = SERVERS + flow});
}

inline octets flow_frame(uint32_t flow) {
    return ethernet(0x0800, flow_packet(flow));
}

// A trailer of a frame from wlan0 to eth0 for which no inspection is asked.
inline av_pkt_trailer plain_trailer() {
    av_pkt_trailer trailer = {};
    trailer.src_if_index = 3;
    trailer.dst_if_index = 2;
    copy_text(trailer.src_if_name, "wlan0");
    copy_text(trailer.dst_if_name, "eth0");
    trailer.flow_id = 1;
    return trailer;
}

// The frames of the first flows with this trailer behind each.
template <typename Frame>
std::vector<octets> flow_frames(uint32_t flows, Frame frame, const av_pkt_trailer &trailer) {
    std::vector<octets> frames;
    for (uint32_t flow = 0; flow < flows; ++flow)
        frames.push_back(with_trailer(frame(flow), trailer));
    return frames;
}

// Whether the DNS cache's public hash puts the address where it puts all others of this kind.
inline bool is_in_crafted_chain(uint32_t address_be) {
    uint32_t hash = 5381;
    for (unsigned byte = 0; byte < 4; ++byte)
        hash = hash * 33 + static_cast<uint32_t>(static_cast<int8_t>(address_be >> (8 * byte)));
    return hash % HASH_TABLE_BUCKETS == 7;
}

inline void judge(const octets &frame) {
    const pcap_pkthdr header = capture_header(frame);
    jorn_pkt_callback(nullptr, &header, frame.data());
}
