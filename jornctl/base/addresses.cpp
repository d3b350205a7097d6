#include "jornctl/base/addresses.h"

#include <arpa/inet.h>
#include <bit>
#include <charconv>

namespace jornctl {
namespace {

constexpr unsigned PREFIX_MAX = 32;
constexpr char OCTET[] = "(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])";
// In some dialects "$" alone finds the end before a line feed as well.
constexpr char END[] = "$(?!\\n)";

uint32_t mask_of(unsigned prefix) {
    return prefix == 0 ? 0 : htonl(0xFFFFFFFF << (PREFIX_MAX - prefix));
}

std::optional<unsigned> parse_prefix(std::string_view text) {
    unsigned prefix = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), prefix);
    const bool is_plain = text == "0" || !text.starts_with('0');
    if (error != std::errc() || stop != text.data() + text.size() || prefix > PREFIX_MAX ||
        !is_plain)
        return std::nullopt;
    return prefix;
}

} // namespace

std::optional<uint32_t> parse_address(const std::string &text) {
    in_addr address = {};
    const bool is_whole = text.find('\0') == std::string::npos;
    if (!is_whole || inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return address.s_addr;
}

std::optional<network> parse_network(const std::string &text) {
    const size_t slash = text.find('/');
    const std::optional<uint32_t> address = parse_address(text.substr(0, slash));
    if (!address)
        return std::nullopt;
    if (slash == std::string::npos)
        return network{*address, mask_of(PREFIX_MAX), false};
    const std::optional<unsigned> prefix = parse_prefix(std::string_view(text).substr(slash + 1));
    if (!prefix)
        return std::nullopt;
    return network{*address, mask_of(*prefix), true};
}

std::optional<uint32_t> parse_netmask(const std::string &text) {
    const std::optional<uint32_t> mask = parse_address(text);
    return mask && prefix_of(*mask) ? mask : std::nullopt;
}

std::string format_address(uint32_t address_be) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address_be, text, sizeof text);
}

std::string format_ipv6(const uint8_t (&address)[16]) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, address, text, sizeof text);
}

std::string format_network(uint32_t address_be, unsigned prefix) {
    return format_address(address_be) + (prefix == PREFIX_MAX ? "" : '/' + std::to_string(prefix));
}

std::optional<unsigned> prefix_of(uint32_t mask_be) {
    const auto prefix = static_cast<unsigned>(std::countl_one(ntohl(mask_be)));
    return mask_be == mask_of(prefix) ? std::optional(prefix) : std::nullopt;
}

std::string address_pattern(const char *behind) {
    return std::string("^") + OCTET + "(\\." + OCTET + "){3}" + behind + END;
}

std::string network_pattern() {
    return address_pattern("(/([0-9]|[12][0-9]|3[0-2]))?");
}

std::vector<std::string> all_netmasks() {
    std::vector<std::string> masks;
    for (unsigned prefix = 0; prefix <= PREFIX_MAX; ++prefix)
        masks.push_back(format_address(mask_of(prefix)));
    return masks;
}

} // namespace jornctl
