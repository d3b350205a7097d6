#include "avwatch/why/sides.h"

#include "avwatch/base/failure.h"
#include "core/text/text.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <netinet/in.h>
#include <optional>

namespace avwatch {
namespace {

using avcore::endpoint;
using avcore::ip_address;

// RFC 1112 reserves 240.0.0.0/4, so no definition names one.
constexpr uint32_t CLIENT_STAND_IN = 0xF0000001;
constexpr uint32_t SERVER_STAND_IN = 0xF0000002;

std::optional<avcore::mac_address> parse_mac(std::string_view text) {
    avcore::mac_address mac = {};
    if (text.size() != 3 * mac.size() - 1)
        return std::nullopt;
    for (size_t i = 0; i < mac.size(); ++i) {
        const char *digits = text.data() + i * 3;
        const auto [end, error] = std::from_chars(digits, digits + 2, mac[i], 16);
        if (error != std::errc() || end != digits + 2 || (i + 1 < mac.size() && digits[2] != ':'))
            return std::nullopt;
    }
    return mac;
}

uint16_t parse_port(const std::string &text, const std::string &server) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port == 0)
        throw refused('"' + server + "\": a port is a number from 1 to 65535");
    return port;
}

} // namespace

endpoint parse_client(const std::string &text) {
    endpoint client;
    if (const auto mac = parse_mac(text)) {
        client.mac = *mac;
        client.address = ip_address();
    } else if (const auto address = ip_address::parse(text)) {
        client.address = *address;
    } else {
        throw refused('"' + text + "\" is neither a MAC address nor an IP address");
    }
    return client;
}

endpoint parse_server(const std::string &text) {
    endpoint server;
    std::string address = text;
    const size_t colon = text.rfind(':');
    if (text.starts_with('[') || (colon != std::string::npos && text.find(':') == colon)) {
        const bool in_brackets = text.starts_with('[');
        const size_t end = in_brackets ? text.find(']') : colon;
        address = text.substr(in_brackets, end - in_brackets);
        const std::string behind = end == std::string::npos ? "" : text.substr(end + in_brackets);
        if (behind.size() > 1 && behind.front() == ':')
            server.port = parse_port(behind.substr(1), text);
        else if (!behind.empty() || end == std::string::npos)
            throw refused('"' + text + "\": what follows the address is no port");
    }
    const std::optional<ip_address> parsed = ip_address::parse(address);
    if (!parsed && !(address.empty() && (text.empty() || server.port != 0)))
        throw refused('"' + text + "\" is neither an IP address nor a host's name");
    server.address = parsed.value_or(ip_address());
    return server;
}

uint8_t protocol_number(const std::string &word) {
    if (equals_ignoring_case(word, "tcp"))
        return IPPROTO_TCP;
    if (equals_ignoring_case(word, "udp"))
        return IPPROTO_UDP;
    throw refused("the protocol is tcp or udp, not \"" + word + '"');
}

uint32_t shown_address(const ip_address &address, flow_side side) {
    if (!address.is_ipv4() || address.is_unspecified())
        return htonl(side == flow_side::client ? CLIENT_STAND_IN : SERVER_STAND_IN);
    uint32_t address_be = 0;
    memcpy(&address_be, address.octets().data() + ip_address::SIZE - sizeof address_be,
           sizeof address_be);
    return address_be;
}

} // namespace avwatch
