#include "avcore/base/ip_address.h"

#include "core/text/text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>

namespace avcore {
namespace {

constexpr size_t IPV4_AT = 12; // in a mapped address
constexpr uint8_t MAPPED[IPV4_AT] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
constexpr unsigned BITS = 128;
constexpr unsigned MAPPED_BITS = 96;

bool in_number(char c) {
    return (c >= '0' && c <= '9') || c == '.';
}

// What an address isn't a part of: "240.0.0.1.example.org" is a name.
bool in_name(char c) {
    const char lower = ascii_lower(c);
    return (lower >= 'a' && lower <= 'z') || in_number(c) || c == '-' || c == '_';
}

} // namespace

ip_address::ip_address(uint32_t ipv4_be) {
    memcpy(octets_.data(), MAPPED, IPV4_AT);
    memcpy(octets_.data() + IPV4_AT, &ipv4_be, sizeof ipv4_be);
}

std::optional<ip_address> ip_address::parse(const std::string &text) {
    in_addr ipv4 = {};
    if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1)
        return ip_address(ipv4.s_addr);
    std::array<uint8_t, SIZE> octets;
    if (inet_pton(AF_INET6, text.c_str(), octets.data()) == 1)
        return ip_address(octets);
    return std::nullopt;
}

bool ip_address::is_ipv4() const {
    return memcmp(octets_.data(), MAPPED, IPV4_AT) == 0;
}

bool ip_address::is_unspecified() const {
    return *this == ip_address() || *this == ip_address(0);
}

bool ip_address::is_reserved() const {
    return is_ipv4() && octets_[IPV4_AT] >= 240;
}

std::string ip_address::text() const {
    char text[INET6_ADDRSTRLEN];
    return is_ipv4() ? inet_ntop(AF_INET, octets_.data() + IPV4_AT, text, sizeof text)
                     : inet_ntop(AF_INET6, octets_.data(), text, sizeof text);
}

std::string ip_address::text_with(uint16_t port) const {
    return (is_ipv4() ? text() : '[' + text() + ']') + ':' + std::to_string(port);
}

bool ip_network::holds(const ip_address &other) const {
    if (other.is_ipv4() != address.is_ipv4())
        return false;
    const size_t whole = bits / 8;
    const auto mask = static_cast<uint8_t>(0xFF00u >> bits % 8);
    return memcmp(other.octets().data(), address.octets().data(), whole) == 0 &&
           (bits % 8 == 0 || ((other.octets()[whole] ^ address.octets()[whole]) & mask) == 0);
}

std::optional<ip_network> ip_network::parse(const std::string &text) {
    const size_t slash = text.find('/');
    const std::optional<ip_address> address = ip_address::parse(text.substr(0, slash));
    if (!address)
        return std::nullopt;
    const unsigned above = text.find(':') == text.npos ? MAPPED_BITS : 0;
    unsigned bits = BITS - above;
    if (slash != text.npos) {
        const char *end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, bits);
        if (error != std::errc() || stop != end || bits > BITS - above)
            return std::nullopt;
    }
    return ip_network{*address, bits + above};
}

std::string with_real_addresses(std::string_view text,
                                const std::function<std::optional<ip_address>(uint32_t)> &real) {
    std::string shown;
    for (size_t at = 0; at < text.size();) {
        const auto *word_end = std::find_if_not(text.begin() + at, text.end(), in_name);
        const std::string word(text.begin() + at, word_end);
        const std::optional<ip_address> address = std::all_of(word.begin(), word.end(), in_number)
                                                      ? ip_address::parse(word)
                                                      : std::nullopt;
        at += word.size();
        uint32_t ipv4_be = 0;
        if (address)
            memcpy(&ipv4_be, address->octets().data() + IPV4_AT, sizeof ipv4_be);
        const std::optional<ip_address> found = address ? real(ipv4_be) : std::nullopt;
        const bool port_follows = text.substr(at).starts_with(':');
        if (found)
            shown += port_follows ? '[' + found->text() + ']' : found->text();
        else
            shown += word;
        if (at < text.size())
            shown += text[at++];
    }
    return shown;
}

} // namespace avcore
