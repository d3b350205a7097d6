#include "traffic.h"

#include <algorithm>
#include <netinet/in.h>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace {

constexpr uint32_t RESOLVER = 0x0A000001;
constexpr uint32_t FIRST_CLIENT = 0x0A000064;
constexpr uint32_t CLIENTS = 100;
constexpr uint32_t FIRST_SERVER = 0xC6120001;
constexpr uint32_t SERVERS = 2000;

constexpr unsigned DONT_FRAGMENT = 0x4000;
constexpr uint8_t FIN = 0x01, SYN = 0x02, PSH = 0x08, ACK = 0x10;

enum class encapsulation { plain, vlan, pppoe };

std::string u16_text(size_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string u32_text(uint32_t value) {
    return u16_text(value >> 16) + u16_text(value & 0xFFFF);
}

std::string server_name(uint32_t server) {
    static constexpr std::string_view WORDS[] = {"media", "cdn",   "static", "api",
                                                 "shop",  "image", "login",  "news"};
    const uint32_t n = server - FIRST_SERVER;
    return std::string(WORDS[n % 8]) + std::to_string(n / 8) + ".site-" + std::to_string(n % 97) +
           ".example";
}

std::string dns_labels(std::string_view name) {
    std::string labels;
    while (!name.empty()) {
        const std::string_view label = name.substr(0, name.find('.'));
        labels += static_cast<char>(label.size());
        labels += label;
        name.remove_prefix(std::min(name.size(), label.size() + 1));
    }
    return labels + '\0';
}

std::string dns_question(uint16_t id, std::string_view name) {
    return u16_text(id) + u16_text(0x0100) + u16_text(1) + u16_text(0) + u32_text(0) +
           dns_labels(name) + u16_text(1) + u16_text(1);
}

std::string dns_answer(uint16_t id, std::string_view name, uint32_t address) {
    return u16_text(id) + u16_text(0x8180) + u16_text(1) + u16_text(1) + u32_text(0) +
           dns_labels(name) + u16_text(1) + u16_text(1) + u16_text(0xC00C) + u16_text(1) +
           u16_text(1) + u32_text(300) + u16_text(4) + u32_text(address);
}

// RFC 8446 with the server name extension of RFC 6066 alone.
std::string client_hello(std::string_view name) {
    const std::string entry = '\0' + u16_text(name.size()) + std::string(name);
    const std::string list = u16_text(entry.size()) + entry;
    const std::string extension = u16_text(0) + u16_text(list.size()) + list;
    const std::string ciphers = u16_text(0x1301) + u16_text(0x1302) + u16_text(0xC02F);
    const std::string body = u16_text(0x0303) + std::string(32, 'r') + '\0' +
                             u16_text(ciphers.size()) + ciphers + std::string("\1\0", 2) +
                             u16_text(extension.size()) + extension;
    const std::string handshake = std::string("\1\0", 2) + u16_text(body.size()) + body;
    return "\x16\3\1" + u16_text(handshake.size()) + handshake;
}

std::string opaque_record(size_t size) {
    return "\x17\3\3" + u16_text(size) + std::string(size, '\x5a');
}

class conversation_writer {
public:
    std::vector<octets> frames;

    void add() {
        client_ = FIRST_CLIENT + below(CLIENTS);
        server_ = FIRST_SERVER + below(SERVERS);
        port_ = static_cast<uint16_t>(20000 + below(40000));
        const uint32_t wrapping = below(20);
        carried_ = wrapping == 0   ? encapsulation::pppoe
                   : wrapping <= 2 ? encapsulation::vlan
                                   : encapsulation::plain;
        const uint32_t kind = below(100);
        if (kind < 45) {
            add_tls();
        } else if (kind < 65) {
            add_http();
        } else if (kind < 80) {
            add_udp(443, 1200, 8 + below(30));
        } else if (kind < 90) {
            add_udp(123, 48, 1);
        } else if (kind < 95) {
            add_ping();
        } else {
            frames.push_back(ethernet(0x0806, arp(client_, RESOLVER)));
        }
    }

private:
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_()) % bound; }

    // An IPv4 packet of this conversation, in the frame that it lies in.
    void add_packet(uint8_t protocol, const octets &payload, bool from_client) {
        const ipv4_words up = {.src = client_, .dst = server_, .fragment = DONT_FRAGMENT};
        const ipv4_words down = {.src = server_, .dst = client_, .fragment = DONT_FRAGMENT};
        const octets packet = ipv4(protocol, payload, from_client ? up : down);
        frames.push_back(carried_ == encapsulation::plain  ? ethernet(0x0800, packet, from_client)
                         : carried_ == encapsulation::vlan ? vlan(0x0800, packet, from_client)
                                                           : pppoe(0x0021, packet, from_client));
    }

    void add_datagram(uint16_t server_port, bool from_client, std::string_view payload) {
        const octets datagram =
            from_client ? udp(port_, server_port, payload) : udp(server_port, port_, payload);
        add_packet(IPPROTO_UDP, datagram, from_client);
    }

    void resolve() {
        if (!resolved_.insert(server_).second)
            return;
        const std::string name = server_name(server_);
        const auto id = static_cast<uint16_t>(resolved_.size());
        const uint32_t server = std::exchange(server_, RESOLVER);
        add_datagram(53, true, dns_question(id, name));
        add_datagram(53, false, dns_answer(id, name, server));
        server_ = server;
    }

    void segment(uint16_t server_port, bool from_client, uint8_t flags, std::string_view payload) {
        uint32_t &seq = from_client ? client_seq_ : server_seq_;
        const uint32_t ack = (flags & ACK) == 0 ? 0 : from_client ? server_seq_ : client_seq_;
        add_packet(IPPROTO_TCP,
                   from_client ? tcp(port_, server_port, payload, flags, seq, ack)
                               : tcp(server_port, port_, payload, flags, seq, ack),
                   from_client);
        seq += static_cast<uint32_t>(payload.size()) + ((flags & (SYN | FIN)) != 0 ? 1 : 0);
    }

    // One request, its answer in several segments, and the connection around them.
    void connection(uint16_t server_port, std::string_view request, std::string_view first_answer,
                    std::string_view further, uint32_t segments) {
        client_seq_ = 1000;
        server_seq_ = 9000;
        segment(server_port, true, SYN, {});
        segment(server_port, false, SYN | ACK, {});
        segment(server_port, true, ACK, {});
        segment(server_port, true, PSH | ACK, request);
        segment(server_port, false, PSH | ACK, first_answer);
        for (uint32_t n = 0; n < segments; ++n) {
            segment(server_port, false, ACK, further);
            if (n % 2 == 0)
                segment(server_port, true, ACK, {});
        }
        segment(server_port, true, FIN | ACK, {});
        segment(server_port, false, FIN | ACK, {});
    }

    void add_tls() {
        resolve();
        connection(443, client_hello(server_name(server_)), opaque_record(900), opaque_record(1300),
                   2 + below(30));
    }

    void add_http() {
        resolve();
        const std::string request = "GET /index.html HTTP/1.1\r\nHost: " + server_name(server_) +
                                    "\r\nUser-Agent: browser\r\nAccept: */*\r\n\r\n";
        if (below(5) == 0) {
            connection(80, request, http_redirect_to(FIRST_SERVER + below(SERVERS)), {}, 0);
            return;
        }
        connection(80, request,
                   "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: 40000\r\n\r\n",
                   std::string(1300, 'h'), 2 + below(20));
    }

    void add_udp(uint16_t server_port, size_t size, uint32_t exchanges) {
        resolve();
        const std::string payload(size, '\x1b');
        for (uint32_t n = 0; n < exchanges; ++n) {
            add_datagram(server_port, true, payload);
            add_datagram(server_port, false, payload);
        }
    }

    void add_ping() {
        for (uint32_t n = 0; n < 4; ++n) {
            add_packet(IPPROTO_ICMP, icmp_echo(true, std::string(56, 'p')), true);
            add_packet(IPPROTO_ICMP, icmp_echo(false, std::string(56, 'p')), false);
        }
    }

    std::mt19937 random_{20250106}; // its numbers are the same everywhere
    std::set<uint32_t> resolved_;
    encapsulation carried_ = encapsulation::plain;
    uint32_t client_ = 0;
    uint32_t server_ = 0;
    uint16_t port_ = 0;
    uint32_t client_seq_ = 0;
    uint32_t server_seq_ = 0;
};

} // namespace

std::vector<octets> make_traffic(size_t count) {
    conversation_writer writer;
    while (writer.frames.size() < count)
        writer.add();
    return std::move(writer.frames);
}
