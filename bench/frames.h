// Frames for the benchmarks: whole Ethernet frames made from a few words, with the kernel module's
// trailer behind them where one is wanted.
//
// Deterministic: the same words make the same bytes. Checksums stay zero, for nobody here looks at
// them.
#pragma once

#include "packet/records/context.h"

#include <cstdint>
#include <pcap/pcap.h>
#include <string>
#include <string_view>
#include <vector>

using frame_bytes = std::vector<uint8_t>;

// How an IPv4 packet lies in its Ethernet frame.
enum class encapsulation { plain, vlan, pppoe };

inline constexpr uint8_t PROTOCOL_ICMP = 1;
inline constexpr uint8_t PROTOCOL_TCP = 6;
inline constexpr uint8_t PROTOCOL_UDP = 17;

inline constexpr uint8_t TCP_FIN = 0x01;
inline constexpr uint8_t TCP_SYN = 0x02;
inline constexpr uint8_t TCP_PSH = 0x08;
inline constexpr uint8_t TCP_ACK = 0x10;

// Addresses and ports are in host byte order.
struct frame_words {
    encapsulation carried = encapsulation::plain;
    uint8_t protocol = PROTOCOL_TCP;
    uint32_t src_ip = 0;
    uint32_t dst_ip = 0;
    uint16_t src_port = 0; // TCP and UDP
    uint16_t dst_port = 0;
    uint8_t tcp_flags = TCP_ACK;
    uint32_t tcp_seq = 1;
    uint32_t tcp_ack = 1;
    bool from_client = true; // which of the two MAC addresses sends
};

frame_bytes make_frame(const frame_words &words, std::string_view payload);

frame_bytes make_arp_request(uint32_t sender_ip, uint32_t wanted_ip);

// A 302 response whose Location names a server by its address.
std::string http_redirect_to(uint32_t ip);

// The trailer of a frame from wlan0 to eth0 for which no inspection is asked.
av_pkt_trailer plain_trailer();
void append_trailer(frame_bytes &frame, const av_pkt_trailer &trailer);

pcap_pkthdr capture_header(const frame_bytes &frame);

// An address in dotted form.
std::string address_text(uint32_t ip);
