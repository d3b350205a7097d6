// IPv4 addresses, networks and masks as text; as numbers in network byte order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace jornctl {

struct network {
    uint32_t address_be;
    uint32_t mask_be; // all ones when the text had no prefix length
    bool has_prefix;
};

std::optional<uint32_t> parse_address(const std::string &text);
std::optional<network> parse_network(const std::string &text);
std::optional<uint32_t> parse_netmask(const std::string &text);

} // namespace jornctl
