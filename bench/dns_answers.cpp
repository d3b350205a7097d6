#include "dns_answers.h"

#include "packet/decode/cursor.h"
#include "packet/decode/decode.h"

namespace {

constexpr uint16_t DNS_PORT = 53;
constexpr size_t DNS_HEADER_SIZE = 12;
constexpr size_t UDP_HEADER_SIZE = 8;
constexpr uint16_t TYPE_A = 1;

// Where the text of a name ends, compressed or not; 0 when it doesn't fit.
size_t skip_name(byte_view message, size_t offset) {
    while (message.holds(offset + 1)) {
        const uint8_t length = message.u8(offset);
        if (length == 0)
            return offset + 1;
        if ((length & 0xC0) == 0xC0)
            return offset + 2;
        offset += length + 1u;
    }
    return 0;
}

// The name that was asked for, which is never compressed.
std::string read_name(byte_view message, size_t offset) {
    std::string name;
    for (uint8_t length; (length = message.u8(offset)) != 0 && length < 64; offset += length + 1u) {
        if (!message.holds(offset + length + 1u))
            return {};
        name += name.empty() ? "" : ".";
        name += message.text().substr(offset + 1, length);
    }
    return name;
}

void collect_from_message(byte_view message, name_table &names) {
    const bool answer = (message.u16(2) & 0x8000) != 0;
    if (!message.holds(DNS_HEADER_SIZE) || !answer || message.u16(4) != 1)
        return;
    const std::string asked = read_name(message, DNS_HEADER_SIZE);
    size_t offset = skip_name(message, DNS_HEADER_SIZE);
    if (asked.empty() || offset == 0)
        return;
    offset += 4;
    for (unsigned left = message.u16(6); left > 0; --left) {
        offset = skip_name(message, offset);
        if (offset == 0 || !message.holds(offset + 10))
            return;
        const size_t size = message.u16(offset + 8);
        uint32_t address = 0;
        if (message.u16(offset) == TYPE_A && size == sizeof address &&
            message.copy(offset + 10, &address, sizeof address))
            names[address] = asked;
        offset += 10 + size;
    }
}

// The daemon's decoder has said that the packet is UDP.
byte_view udp_payload(byte_view ipv4_packet) {
    const size_t header_size = (ipv4_packet.u8(0) & 0x0Fu) * 4u;
    return ipv4_packet.from(header_size + UDP_HEADER_SIZE);
}

} // namespace

void collect_dns_names(std::span<const uint8_t> frame, name_table &names) {
    // The decoder takes a capture with a trailer when it is long enough to hold one.
    frame_bytes captured(frame.begin(), frame.end());
    append_trailer(captured, plain_trailer());
    const pcap_pkthdr header = capture_header(captured);
    pkt_ctx ctx = {};
    jorn_decode_eth_pkt(&ctx, &header, captured.data());
    if (ctx.ip_proto != PROTOCOL_UDP || ctx.src_port != DNS_PORT)
        return;
    collect_from_message(udp_payload(ipv4_packet_in({frame.data(), frame.size()})), names);
}
