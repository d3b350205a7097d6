// An IPv4 or IPv6 address, as a key and as text. IPv4 addresses are mapped (::ffff:192.0.2.1, RFC
// 4291); frames whose IPv6 header holds a mapped address aren't carried, so the two don't meet.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace avcore {

class ip_address {
public:
    static constexpr size_t SIZE = 16;

    ip_address() = default; // the unspecified one, ::
    ip_address(uint32_t ipv4_be);
    explicit ip_address(const std::array<uint8_t, SIZE> &octets) : octets_(octets) {}
    static std::optional<ip_address> parse(const std::string &text);

    bool is_ipv4() const;
    bool is_unspecified() const; // :: or 0.0.0.0
    // IPv4 of 240.0.0.0/4, from which stand-ins for IPv6 addresses are taken; the broadcast address
    // is in it.
    bool is_reserved() const;
    const std::array<uint8_t, SIZE> &octets() const { return octets_; }

    std::string text() const;
    std::string text_with(uint16_t port) const; // 192.0.2.1:443, [2001:db8::1]:443

    auto operator<=>(const ip_address &) const = default;

private:
    std::array<uint8_t, SIZE> octets_ = {};
};

struct ip_network {
    ip_address address;
    unsigned bits = 0; // of the 128

    auto operator<=>(const ip_network &) const = default;

    // One of IPv6 holds no IPv4 address.
    bool holds(const ip_address &other) const;

    // "192.0.2.0/24", "2001:db8::/64", or an address alone.
    static std::optional<ip_network> parse(const std::string &text);
};

// The text of somebody who knows stand-ins alone, with the addresses that they stand in for.
// `real` has the latter, or none where an IPv4 address stays as it is.
std::string with_real_addresses(std::string_view text,
                                const std::function<std::optional<ip_address>(uint32_t)> &real);

} // namespace avcore
