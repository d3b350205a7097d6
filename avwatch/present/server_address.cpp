#include "avwatch/present/server_address.h"

#include "avcore/base/ip_address.h"

#include <cstddef>
#include <cstdio>
#include <netinet/ether.h>
#include <optional>

namespace avwatch {

server_address::server_address(const std::string &text) {
    ether_addr mac = {};
    if (const std::optional<avcore::ip_address> ip = avcore::ip_address::parse(text)) {
        octets_ = ip->octets();
        kind_ = kind::ip;
    } else if (ether_aton_r(text.c_str(), &mac) != nullptr) {
        std::copy(std::begin(mac.ether_addr_octet), std::end(mac.ether_addr_octet),
                  octets_.begin());
        kind_ = kind::mac;
    }
}

std::string server_address::text() const {
    if (kind_ == kind::ip)
        return avcore::ip_address(octets_).text();
    if (kind_ == kind::none)
        return {};
    std::array<char, sizeof "02:00:00:00:00:0C"> text;
    snprintf(text.data(), text.size(), "%02X:%02X:%02X:%02X:%02X:%02X", octets_[0], octets_[1],
             octets_[2], octets_[3], octets_[4], octets_[5]);
    return text.data();
}

} // namespace avwatch
