// IPv4 addresses, networks and masks as text; as numbers in network byte order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace jornctl {

struct network {
    uint32_t address_be;
    uint32_t mask_be; // all ones when the text had no prefix length
    bool has_prefix;
};

std::optional<uint32_t> parse_address(const std::string &text);
std::optional<network> parse_network(const std::string &text);
std::optional<uint32_t> parse_netmask(const std::string &text);

std::string format_address(uint32_t address_be);
std::string format_ipv6(const uint8_t (&address)[16]);
// Without prefix length where it is a host.
std::string format_network(uint32_t address_be, unsigned prefix);
// Nothing for a mask with holes.
std::optional<unsigned> prefix_of(uint32_t mask_be);

// What the parsers take, as regular expressions and as a list.
std::string address_pattern(const char *behind = "");
std::string network_pattern();
std::vector<std::string> all_netmasks();

} // namespace jornctl
