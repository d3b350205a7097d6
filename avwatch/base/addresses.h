// MAC and IP addresses as texts that are the same for the same address.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace avwatch {

// "02:00:00:00:00:0c" is "02:00:00:00:00:0C", as avcore writes it; nothing for what isn't one.
std::optional<std::string> canonical_mac(std::string_view text);
// "2001:DB8:0::1" is "2001:db8::1"; an IPv4 address in IPv6's form is the IPv4 address.
std::optional<std::string> canonical_address(const std::string &text);

} // namespace avwatch
