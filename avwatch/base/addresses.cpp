#include "avwatch/base/addresses.h"

#include "avcore/base/ip_address.h"

namespace avwatch {

std::optional<std::string> canonical_mac(std::string_view text) {
    constexpr std::string_view shape = "xx:xx:xx:xx:xx:xx";
    std::string mac(text);
    if (mac.size() != shape.size())
        return std::nullopt;
    for (size_t i = 0; i < mac.size(); ++i) {
        if (mac[i] >= 'a' && mac[i] <= 'f')
            mac[i] = static_cast<char>(mac[i] - 'a' + 'A');
        const bool is_digit = (mac[i] >= '0' && mac[i] <= '9') || (mac[i] >= 'A' && mac[i] <= 'F');
        if (shape[i] == 'x' ? !is_digit : mac[i] != ':')
            return std::nullopt;
    }
    return mac;
}

std::optional<std::string> canonical_address(const std::string &text) {
    // inet_pton would stop at a NUL.
    if (text.find('\0') != std::string::npos)
        return std::nullopt;
    const std::optional<avcore::ip_address> address = avcore::ip_address::parse(text);
    return address ? std::optional(address->text()) : std::nullopt;
}

} // namespace avwatch
