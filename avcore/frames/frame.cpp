#include "avcore/frames/frame.h"

#include "avcore/frames/header_sizes.h"
#include "avcore/frames/network_order.h"
#include "packet/decode/cursor.h"
#include "packet/decode/decode.h"
#include "packet/decode/flow_key.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <utility>

namespace avcore {
namespace {

constexpr uint8_t TCP = 6;
constexpr uint8_t UDP = 17;

size_t ipv4_header_size(byte_view packet) {
    return (packet.u8(0) & 0x0Fu) * size_t{4};
}

} // namespace

std::string mac_text(const mac_address &mac) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text(sizeof "00:00:00:00:00:00" - 1, ':');
    for (size_t i = 0; i < mac.size(); ++i) {
        text[3 * i] = digits[mac[i] >> 4];
        text[3 * i + 1] = digits[mac[i] & 15];
    }
    return text;
}

std::optional<mac_address> mac_in(std::string_view text) {
    mac_address mac = {};
    if (text.size() != 17)
        return std::nullopt;
    for (size_t i = 0; i < mac.size(); ++i) {
        const char *digits = text.data() + i * 3;
        const auto [end, error] = std::from_chars(digits, digits + 2, mac[i], 16);
        if (error != std::errc() || end != digits + 2 || (i < 5 && digits[2] != ':'))
            return std::nullopt;
    }
    return mac;
}

flow_id flow_id_of(const frame_facts &frame) {
    flow_id id = {frame.ipv4, 0, frame.ip_proto, frame.sender, frame.receiver};
    if (frame.ipv4) {
        id.low.mac = {};
        id.high.mac = {};
    } else {
        id.ether_type = frame.ether_type;
    }
    id.low.address = id.high.address = {};
    const bool sender_is_low = !(id.high < id.low);
    if (!sender_is_low)
        std::swap(id.low, id.high);
    if (frame.sender_is_client)
        id.client =
            *frame.sender_is_client == sender_is_low ? flow_id::side::LOW : flow_id::side::HIGH;
    return id;
}

flow_id flow_id_of(const flow_key &key) {
    frame_facts frame;
    memcpy(frame.sender.mac.data(), key.src_mac, sizeof key.src_mac);
    memcpy(frame.receiver.mac.data(), key.dst_mac, sizeof key.dst_mac);
    frame.ipv4 = key.src_ip_be != 0 || key.dst_ip_be != 0 || key.ip_proto != 0;
    if (key.non_ip != 0) {
        frame.ether_type = ntohs(key.dst_port_be);
    } else {
        frame.sender.port = ntohs(key.src_port_be);
        frame.receiver.port = ntohs(key.dst_port_be);
        frame.sender.ip_be = key.src_ip_be;
        frame.receiver.ip_be = key.dst_ip_be;
        frame.ip_proto = key.ip_proto;
    }
    return flow_id_of(frame);
}

frame_facts decode_frame(std::span<const uint8_t> frame_and_trailer) {
    pcap_pkthdr header = {};
    header.caplen = static_cast<bpf_u_int32>(frame_and_trailer.size());
    header.len = header.caplen;
    pkt_ctx ctx = {};
    jorn_decode_eth_pkt(&ctx, &header, frame_and_trailer.data());
    jorn_build_flow_key(&ctx);

    frame_facts facts;
    facts.key = ctx.flow_key;
    memcpy(facts.sender.mac.data(), ctx.src_mac, facts.sender.mac.size());
    memcpy(facts.receiver.mac.data(), ctx.dst_mac, facts.receiver.mac.size());
    facts.sender.ip_be = ctx.src_ip;
    facts.receiver.ip_be = ctx.dst_ip;
    facts.sender.address = ctx.src_ip;
    facts.receiver.address = ctx.dst_ip;
    facts.sender.port = ctx.src_port;
    facts.receiver.port = ctx.dst_port;
    facts.ether_type = ctx.ether_type;
    facts.ip_proto = ctx.ip_proto;
    facts.redirects = ctx.http_redirect != 0;
    facts.ipv4 = ctx.src_ip != 0 || ctx.dst_ip != 0 || ctx.ip_proto != 0;
    if (facts.ipv4)
        facts.dscp = static_cast<uint8_t>(
            ipv4_packet_in({frame_and_trailer.data(), frame_and_trailer.size()}).u8(1) >> 2);
    return facts;
}

std::span<const uint8_t> ipv4_packet(std::span<const uint8_t> frame) {
    const byte_view packet = ipv4_packet_in({frame.data(), frame.size()});
    const size_t header_size = ipv4_header_size(packet);
    const size_t total_size = packet.u16(2);
    if (!packet.holds(IPV4_HEADER_SIZE) || packet.u8(0) >> 4 != 4 ||
        header_size < IPV4_HEADER_SIZE || !packet.holds(header_size) || total_size < header_size ||
        (packet.u16(6) & FRAGMENT_OFFSET_MASK) != 0)
        return {};
    return frame.last(packet.size()).first(packet.first(total_size).size());
}

std::span<const uint8_t> udp_payload(std::span<const uint8_t> ipv4) {
    const byte_view packet(ipv4.data(), ipv4.size());
    const size_t header_size = ipv4_header_size(packet);
    const byte_view datagram = packet.from(header_size);
    const size_t size = datagram.u16(4);
    if (packet.u8(9) != UDP || !datagram.holds(UDP_HEADER_SIZE) || size < UDP_HEADER_SIZE)
        return {};
    return ipv4.subspan(header_size + UDP_HEADER_SIZE,
                        datagram.first(size).size() - UDP_HEADER_SIZE);
}

std::optional<tcp_segment> tcp_segment_in(std::span<const uint8_t> ipv4) {
    const byte_view packet(ipv4.data(), ipv4.size());
    const size_t ip_header_size = ipv4_header_size(packet);
    const byte_view segment = packet.from(ip_header_size);
    const size_t header_size = (segment.u8(12) >> 4) * size_t{4};
    if (packet.u8(9) != TCP || header_size < TCP_HEADER_SIZE || !segment.holds(header_size))
        return std::nullopt;
    return tcp_segment{uint32_t{segment.u16(4)} << 16 | segment.u16(6),
                       uint32_t{segment.u16(8)} << 16 | segment.u16(10), segment.u8(13),
                       ipv4.subspan(ip_header_size + header_size)};
}

std::vector<std::vector<uint8_t>> cut_payload(std::span<const uint8_t> headers,
                                              std::span<const uint8_t> payload, size_t segment_size,
                                              size_t most) {
    std::vector<std::vector<uint8_t>> packets;
    while (!payload.empty() && packets.size() < most) {
        const auto segment = payload.first(std::min(segment_size, payload.size()));
        payload = payload.subspan(segment.size());
        std::vector<uint8_t> &packet = packets.emplace_back(headers.begin(), headers.end());
        packet.insert(packet.end(), segment.begin(), segment.end());
    }
    return packets;
}

std::vector<std::vector<uint8_t>> cut_datagrams(std::span<const uint8_t> ipv4, size_t segment_size,
                                                size_t most) {
    const std::span<const uint8_t> payload = udp_payload(ipv4);
    std::vector<std::vector<uint8_t>> packets;
    if (payload.empty() || segment_size == 0) {
        packets.emplace_back(ipv4.begin(), ipv4.end());
        return packets;
    }
    const size_t headers_size = ipv4_header_size({ipv4.data(), ipv4.size()}) + UDP_HEADER_SIZE;
    packets = cut_payload(ipv4.first(headers_size), payload, segment_size, most);
    for (std::vector<uint8_t> &packet : packets) {
        put_u16(&packet[2], packet.size());
        put_u16(&packet[headers_size - 4], packet.size() - headers_size + UDP_HEADER_SIZE);
    }
    return packets;
}

} // namespace avcore
