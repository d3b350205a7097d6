#include "dns_answers.h"

#include "packet/decode/cursor.h"
#include "packet/decode/decode.h"

namespace {

constexpr uint16_t DNS_PORT = 53;
constexpr size_t DNS_HEADER_SIZE = 12;
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

// Where the UDP payload of a frame starts, found from its IPv4 header; 0 when there is none. The
// daemon's decoder has said that the frame is UDP.
size_t udp_payload_offset(byte_view frame) {
    size_t ip = 14;
    uint16_t type = frame.u16(12);
    if (type == 0x8100) {
        type = frame.u16(16);
        ip = 18;
    }
    if (type == 0x8864)
        ip += 8;
    const size_t header_size = (frame.u8(ip) & 0x0Fu) * 4u;
    return ip + header_size + 8;
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
    const byte_view bytes(frame.data(), frame.size());
    collect_from_message(bytes.from(udp_payload_offset(bytes)), names);
}
