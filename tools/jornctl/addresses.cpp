#include "jornctl/addresses.h"

#include <arpa/inet.h>
#include <charconv>

namespace jornctl {
namespace {

constexpr uint32_t ALL_ONES = 0xFFFFFFFF;
constexpr unsigned PREFIX_MAX = 32;

} // namespace

std::optional<uint32_t> parse_address(const std::string &text) {
    in_addr address = {};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return address.s_addr;
}

std::optional<network> parse_network(const std::string &text) {
    const size_t slash = text.find('/');
    const std::optional<uint32_t> address = parse_address(text.substr(0, slash));
    if (!address)
        return std::nullopt;
    if (slash == std::string::npos)
        return network{*address, ALL_ONES, false};
    unsigned prefix = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, prefix);
    if (error != std::errc() || stop != end || prefix > PREFIX_MAX)
        return std::nullopt;
    const uint32_t mask = prefix == 0 ? 0 : ALL_ONES << (PREFIX_MAX - prefix);
    return network{*address, htonl(mask), true};
}

std::optional<uint32_t> parse_netmask(const std::string &text) {
    const std::optional<uint32_t> mask = parse_address(text);
    if (!mask)
        return std::nullopt;
    const uint32_t zeros = ~ntohl(*mask); // 0...01...1, or it has holes
    return (zeros & (zeros + 1)) == 0 ? mask : std::nullopt;
}

} // namespace jornctl
