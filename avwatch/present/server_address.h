// A flow's server in few bytes: each of 65,536 flows may have one of its own.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace avwatch {

class server_address {
public:
    server_address() = default; // none
    // An IP address, or a MAC address where the flow isn't IP's; both as base/addresses.h has them.
    // What is neither is none.
    explicit server_address(const std::string &text);

    std::string text() const;

private:
    enum class kind : uint8_t { none, ip, mac };
    std::array<uint8_t, 16> octets_ = {};
    kind kind_ = kind::none;
};

} // namespace avwatch
