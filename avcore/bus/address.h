// Where an access point is: IPv4 or IPv6 address and TCP port, checked once when it arrives.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/socket.h>

namespace avcore {

class bus_address {
public:
    // Of a peer, from what inet_pton takes. None for what isn't one host's: unspecified, broadcast,
    // multicast and link-local addresses. An IPv4 address in IPv6 clothes counts as itself.
    static std::optional<bus_address> of_peer(const std::string &text, uint16_t port);
    // To listen at: "[::]:5670", "192.0.2.1:5670".
    static std::optional<bus_address> of_listener(const std::string &text);
    // Of an accepted connection.
    static bus_address of_socket(const sockaddr_storage &address);
    static bus_address any_ipv4(uint16_t port);

    const sockaddr *get() const { return &address_.any; }
    socklen_t size() const;
    bool is_loopback() const;
    int family() const { return address_.any.sa_family; }
    uint16_t port() const;
    std::string text() const; // without the port

    bool operator==(const bus_address &other) const;

private:
    bus_address(const in_addr &address, uint16_t port);
    bus_address(const in6_addr &address, uint16_t port);
    static std::optional<bus_address> parse(const std::string &text, uint16_t port);
    bool is_one_host() const;

    union {
        sockaddr any;
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
    } address_;
};

} // namespace avcore
