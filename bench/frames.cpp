#include "frames.h"

#include "core/text/text.h"

#include <cstring>

namespace {

constexpr uint8_t CLIENT_MAC[6] = {0x02, 0x00, 0x00, 0x00, 0x0c, 0x01};
constexpr uint8_t SERVER_MAC[6] = {0x02, 0x00, 0x00, 0x00, 0x0e, 0x02};

void put_u16(frame_bytes &out, size_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

void put_u32(frame_bytes &out, uint32_t value) {
    put_u16(out, value >> 16);
    put_u16(out, value & 0xFFFF);
}

void put_bytes(frame_bytes &out, const uint8_t (&bytes)[6]) {
    for (const uint8_t byte : bytes)
        out.push_back(byte);
}

void put_ethernet(frame_bytes &out, bool from_client) {
    put_bytes(out, from_client ? SERVER_MAC : CLIENT_MAC);
    put_bytes(out, from_client ? CLIENT_MAC : SERVER_MAC);
}

// Whatever stands between the MAC addresses and the IPv4 header.
void put_encapsulation(frame_bytes &out, encapsulation carried, size_t ip_size) {
    switch (carried) {
    case encapsulation::plain:
        put_u16(out, 0x0800);
        break;
    case encapsulation::vlan:
        put_u16(out, 0x8100);
        put_u16(out, 42);
        put_u16(out, 0x0800);
        break;
    case encapsulation::pppoe:
        put_u16(out, 0x8864);
        put_u16(out, 0x1100);
        put_u16(out, 7);
        put_u16(out, ip_size + 2);
        put_u16(out, 0x0021);
        break;
    }
}

size_t transport_header_size(uint8_t protocol) {
    return protocol == PROTOCOL_TCP ? 20 : 8;
}

void put_ipv4(frame_bytes &out, const frame_words &words, size_t ip_size) {
    put_u16(out, 0x4500);
    put_u16(out, ip_size);
    put_u32(out, 0x4000); // identification 0, don't fragment
    out.push_back(64);
    out.push_back(words.protocol);
    put_u16(out, 0);
    put_u32(out, words.src_ip);
    put_u32(out, words.dst_ip);
}

void put_transport(frame_bytes &out, const frame_words &words, size_t payload_size) {
    if (words.protocol == PROTOCOL_ICMP) {
        put_u32(out, words.from_client ? 0x08000000 : 0);
        put_u32(out, 1);
        return;
    }
    put_u16(out, words.src_port);
    put_u16(out, words.dst_port);
    if (words.protocol == PROTOCOL_UDP) {
        put_u16(out, payload_size + 8);
        put_u16(out, 0);
        return;
    }
    put_u32(out, words.tcp_seq);
    put_u32(out, words.tcp_ack);
    put_u16(out, 0x5000u | words.tcp_flags);
    put_u16(out, 0xFFFF);
    put_u32(out, 0);
}

} // namespace

frame_bytes make_frame(const frame_words &words, std::string_view payload) {
    const size_t ip_size = 20 + transport_header_size(words.protocol) + payload.size();
    frame_bytes frame;
    put_ethernet(frame, words.from_client);
    put_encapsulation(frame, words.carried, ip_size);
    put_ipv4(frame, words, ip_size);
    put_transport(frame, words, payload.size());
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

frame_bytes make_arp_request(uint32_t sender_ip, uint32_t wanted_ip) {
    frame_bytes frame;
    put_ethernet(frame, true);
    put_u16(frame, 0x0806);
    put_u32(frame, 0x00010800);
    put_u32(frame, 0x06040001);
    put_bytes(frame, CLIENT_MAC);
    put_u32(frame, sender_ip);
    put_bytes(frame, {0, 0, 0, 0, 0, 0});
    put_u32(frame, wanted_ip);
    return frame;
}

std::string http_redirect_to(uint32_t ip) {
    return "HTTP/1.1 302 Found\r\nServer: gateway\r\nDate: Mon, 06 Jan 2025 10:00:00 GMT\r\n"
           "Location: http://" +
           address_text(ip) + "/login\r\nContent-Length: 0\r\n\r\n";
}

av_pkt_trailer plain_trailer() {
    av_pkt_trailer trailer = {};
    trailer.src_if_index = 3;
    trailer.dst_if_index = 2;
    copy_text(trailer.src_if_name, "wlan0");
    copy_text(trailer.dst_if_name, "eth0");
    trailer.flow_id = 1;
    return trailer;
}

void append_trailer(frame_bytes &frame, const av_pkt_trailer &trailer) {
    const size_t frame_size = frame.size();
    frame.resize(frame_size + sizeof trailer);
    memcpy(frame.data() + frame_size, &trailer, sizeof trailer);
}

pcap_pkthdr capture_header(const frame_bytes &frame) {
    pcap_pkthdr header = {};
    header.caplen = static_cast<uint32_t>(frame.size());
    header.len = header.caplen;
    return header;
}

std::string address_text(uint32_t ip) {
    return std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 255) + "." +
           std::to_string(ip >> 8 & 255) + "." + std::to_string(ip & 255);
}
