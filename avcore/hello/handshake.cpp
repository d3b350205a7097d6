#include "avcore/hello/handshake.h"

#include "avcore/frames/frame.h"
#include "avcore/hello/quic_initial.h"
#include "core/text/text.h"
#include "packet/decode/cursor.h"
#include "platform/host/messages/av_messages.h"

#include <algorithm>

namespace avcore {
namespace {

constexpr uint8_t TLS_HANDSHAKE = 22;
constexpr uint8_t TLS_SERVER_HELLO = 2;
constexpr size_t TLS_RECORD_HEADER_SIZE = 5;
constexpr uint8_t QUIC_LONG_HEADER = 0x80;
constexpr size_t FLOW_NAME_MAX = sizeof(av_verdict::app_name) - 1;

// What clients show instead of the server's name when they encrypt it (ECH). That the extension is
// there says nothing: browsers send it with any bytes where they encrypt no name.
constexpr std::string_view OUTER_NAMES[] = {
    "cloudflare-ech.com",
    "cover.defo.ie",
    "ech-public.atmeta.com",
    "public.tls-ech.dev",
};

byte_view tcp_payload(std::span<const uint8_t> ipv4) {
    const std::optional<tcp_segment> segment = tcp_segment_in(ipv4);
    return segment ? byte_view(segment->data.data(), segment->data.size()) : byte_view();
}

bool is_server_hello(byte_view payload) {
    return payload.u8(0) == TLS_HANDSHAKE && payload.u8(1) == 3 &&
           payload.u8(TLS_RECORD_HEADER_SIZE) == TLS_SERVER_HELLO;
}

// Neither a version negotiation (version 0) nor a Retry has looked at the handshake.
bool goes_on_in_quic(byte_view payload) {
    const uint32_t version = uint32_t{payload.u16(1)} << 16 | payload.u16(3);
    return (payload.u8(0) & QUIC_LONG_HEADER) != 0 && version != 0 &&
           !is_quic_retry(version, payload.u8(0));
}

bool in_host_name(char c) {
    const char lower = ascii_lower(c);
    return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '.';
}

bool is_outer_name(std::string_view host) {
    return std::any_of(
        std::begin(OUTER_NAMES), std::end(OUTER_NAMES),
        [host](std::string_view outer) { return equals_ignoring_case(host, outer); });
}

// Empty when it is no name.
std::string_view name_in(std::string_view shown) {
    std::string_view host = shown.substr(0, shown.find(':'));
    const std::string_view port = shown.substr(std::min(host.size() + 1, shown.size()));
    if (host.ends_with('.'))
        host.remove_suffix(1);
    const bool has_letter =
        std::any_of(host.begin(), host.end(), [](char c) { return ascii_lower(c) >= 'a'; });
    if (!has_letter || !std::all_of(host.begin(), host.end(), in_host_name) ||
        port.find_first_not_of("0123456789") != port.npos || is_outer_name(host))
        return {};
    return host;
}

} // namespace

bool takes_handshake(handshake shown, std::span<const uint8_t> ipv4) {
    switch (shown) {
    case handshake::http:
        return tcp_payload(ipv4).text().starts_with("HTTP/1.");
    case handshake::tls:
        return is_server_hello(tcp_payload(ipv4));
    case handshake::quic: {
        const std::span<const uint8_t> payload = udp_payload(ipv4);
        return goes_on_in_quic({payload.data(), payload.size()});
    }
    case handshake::none:
        break;
    }
    return false;
}

std::optional<std::string> flow_name_in(std::string_view shown) {
    const std::string_view host = name_in(shown);
    if (host.empty())
        return std::nullopt;
    std::string name(host.substr(host.size() - std::min(host.size(), FLOW_NAME_MAX)));
    std::transform(name.begin(), name.end(), name.begin(), ascii_lower);
    return name;
}

} // namespace avcore
