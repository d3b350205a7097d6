#include "avcore/bus/address.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>

namespace avcore {

bus_address::bus_address(const in_addr &address, uint16_t port) : address_() {
    memset(&address_, 0, sizeof address_);
    address_.ipv4.sin_family = AF_INET;
    address_.ipv4.sin_addr = address;
    address_.ipv4.sin_port = htons(port);
}

bus_address::bus_address(const in6_addr &address, uint16_t port) : address_() {
    memset(&address_, 0, sizeof address_);
    if (IN6_IS_ADDR_V4MAPPED(&address)) {
        in_addr inner = {};
        memcpy(&inner, address.s6_addr + 12, sizeof inner);
        *this = bus_address(inner, port);
        return;
    }
    address_.ipv6.sin6_family = AF_INET6;
    address_.ipv6.sin6_addr = address;
    address_.ipv6.sin6_port = htons(port);
}

std::optional<bus_address> bus_address::parse(const std::string &text, uint16_t port) {
    in_addr ipv4 = {};
    if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1)
        return bus_address(ipv4, port);
    in6_addr ipv6 = {};
    if (inet_pton(AF_INET6, text.c_str(), &ipv6) == 1)
        return bus_address(ipv6, port);
    return std::nullopt;
}

bool bus_address::is_one_host() const {
    if (family() == AF_INET6) {
        const in6_addr &address = address_.ipv6.sin6_addr;
        return !IN6_IS_ADDR_UNSPECIFIED(&address) && !IN6_IS_ADDR_MULTICAST(&address) &&
               !IN6_IS_ADDR_LINKLOCAL(&address);
    }
    const uint32_t address = ntohl(address_.ipv4.sin_addr.s_addr);
    const bool link_local = address >> 16 == 0xA9FE;
    return address != INADDR_ANY && address != INADDR_BROADCAST && !IN_MULTICAST(address) &&
           !link_local;
}

bool bus_address::is_loopback() const {
    if (family() == AF_INET6)
        return IN6_IS_ADDR_LOOPBACK(&address_.ipv6.sin6_addr);
    return ntohl(address_.ipv4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

std::optional<bus_address> bus_address::of_peer(const std::string &text, uint16_t port) {
    const std::optional<bus_address> address = parse(text, port);
    return address && address->is_one_host() ? address : std::nullopt;
}

std::optional<bus_address> bus_address::of_listener(const std::string &text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return std::nullopt;
    std::string host = text.substr(0, colon);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed)
        host = host.substr(1, host.size() - 2);
    uint16_t port = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
    const bool ipv6 = host.find(':') != std::string::npos;
    if (error != std::errc() || stop != end || port == 0 || ipv6 != bracketed)
        return std::nullopt;
    return parse(host, port);
}

bus_address bus_address::of_socket(const sockaddr_storage &address) {
    if (address.ss_family == AF_INET6) {
        sockaddr_in6 ipv6 = {};
        memcpy(&ipv6, &address, sizeof ipv6);
        return {ipv6.sin6_addr, ntohs(ipv6.sin6_port)};
    }
    sockaddr_in ipv4 = {};
    memcpy(&ipv4, &address, sizeof ipv4);
    return {ipv4.sin_addr, ntohs(ipv4.sin_port)};
}

bus_address bus_address::any_ipv4(uint16_t port) {
    return {in_addr{INADDR_ANY}, port};
}

socklen_t bus_address::size() const {
    return family() == AF_INET6 ? sizeof address_.ipv6 : sizeof address_.ipv4;
}

uint16_t bus_address::port() const {
    return ntohs(family() == AF_INET6 ? address_.ipv6.sin6_port : address_.ipv4.sin_port);
}

std::string bus_address::text() const {
    char text[INET6_ADDRSTRLEN] = {};
    if (family() == AF_INET6)
        inet_ntop(AF_INET6, &address_.ipv6.sin6_addr, text, sizeof text);
    else
        inet_ntop(AF_INET, &address_.ipv4.sin_addr, text, sizeof text);
    return text;
}

bool bus_address::operator==(const bus_address &other) const {
    return family() == other.family() && port() == other.port() && text() == other.text();
}

} // namespace avcore
