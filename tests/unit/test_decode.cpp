#include "core/base/log.h"
#include "core/state/stats.h"
#include "packet/decode/decode.h"
#include "packet/records/context.h"
#include "support/frames.h"
#include "support/fresh_state.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <vector>

namespace {

// Decodes a capture that ends where its memory ends: AddressSanitizer sees a read past it.
pkt_ctx decode(const octets &capture, size_t captured) {
    const auto exact = std::make_unique<uint8_t[]>(captured);
    std::copy_n(capture.begin(), captured, exact.get());
    pcap_pkthdr header = {};
    header.caplen = header.len = static_cast<uint32_t>(captured);
    pkt_ctx ctx = {};
    jorn_decode_eth_pkt(&ctx, &header, exact.get());
    return ctx;
}

pkt_ctx decode(const octets &capture) {
    return decode(capture, capture.size());
}

octets with_total_length(octets packet, unsigned length) {
    return packet.replace(2, 2, be16(length));
}

TEST(Decode, CountsByKind) {
    constexpr unsigned MORE = 0x2000;
    const auto bare = [](const octets &packet) { return ethernet(0x0800, packet); };
    const struct {
        const char *what;
        octets frame;
        std::vector<unsigned> counted;
    } rows[] = {
        {"TCP from port 80", bare(ipv4(6, tcp(80, 1024))), {2, 6, 9, 18}},
        {"ICMP", bare(ipv4(1, octets(8, 0))), {2, 6, 13}},
        {"IGMP", bare(ipv4(2, octets(8, 0))), {2, 6, 14}},
        {"another IP protocol", bare(ipv4(47, octets(8, 0))), {2, 6, 15}},
        {"first UDP fragment", bare(ipv4(17, udp(1, 2), {.fragment = MORE})), {2, 6, 8, 11}},
        {"last fragment", bare(ipv4(17, udp(1, 2), {.fragment = 0x1FFF})), {2, 6, 8}},
        {"don't fragment", bare(ipv4(17, udp(1, 2), {.fragment = 0x4000})), {2, 6, 11}},
        {"fragment of nothing", bare(ipv4(1, {}, {.fragment = 1})), {2, 6, 13}},
        {"fragment of total length 0",
         bare(with_total_length(ipv4(6, tcp(1, 2), {.fragment = MORE}), 0)),
         {2, 6, 8}},
        {"VLAN", vlan(0x0800, ipv4(17, udp(1, 2))), {2, 6, 11}},
        {"two VLAN tags", vlan(0x8100, be16(1) + be16(0x0800) + ipv4(17, udp(1, 2))), {2, 5}},
        {"PPPoE IPv4", pppoe(0x0021, ipv4(6, tcp(1, 2))), {2, 6, 9}},
        {"PPPoE IPv6", pppoe(0x0057, octets(60, 0)), {2}},
        {"ARP", ethernet(0x0806, arp()), {2, 16}},
        {"unknown type", ethernet(0x88B5, octets(46, 0)), {2, 5}},
        {"cut in the Ethernet header", octets(13, 8), {2}},
        {"cut in the IPv4 header", bare(ipv4(6, {}).substr(0, 19)), {2}},
    };
    for (const auto &row : rows) {
        fresh_state();
        testing::internal::CaptureStderr();
        decode(with_trailer(row.frame));
        testing::internal::GetCapturedStderr();
        std::vector<unsigned> counted;
        for (unsigned id = 0; id < std::size(jorn_state.stats.count); ++id)
            counted.insert(counted.end(), static_cast<size_t>(jorn_state.stats.count[id]), id);
        EXPECT_EQ(counted, row.counted) << row.what;
        // Who looks for the packet alone finds what was decoded.
        const bool ipv4 = std::count(counted.begin(), counted.end(), STATS_IPV4) != 0;
        EXPECT_EQ(ipv4_packet_in({row.frame.data(), row.frame.size()}).holds(20), ipv4) << row.what;
    }
}

TEST(Decode, HttpLocation) {
    using namespace std::string_literals;
    constexpr char DIGITS[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    const std::string found = "HTTP/1.1 302 Found\r\n";
    const struct {
        const char *what;
        std::string payload;
        int redirect;
        std::string location; // without its padding
    } rows[] = {
        {"blank after the colon stays, bytes behind the line too",
         found + "Location: http://1.2.3.4/\r\n\r\n", 1, " http://1.2.3.4/\r\n\r\n"},
        {"33 bytes and no NUL", found + "Location:" + DIGITS + "\r\n", 1, std::string(DIGITS, 33)},
        {"32 bytes", found + "Location:" + std::string(DIGITS, 30) + "\r\n", 1,
         std::string(DIGITS, 30) + "\r\n"},
        {"NUL in the value", found + "Location:ab\0cd\r\n"s, 1, "ab"},
        {"NUL as the value", found + "Location:\0\r\n"s, 1, ""},
        {"any header that ends so", found + "Content-Location: /a\r\nLocation: /b\r\n", 1,
         " /a\r\nLocation: /b\r\n"},
        {"no end of line", found + "Location: http://1.2.3.4/\n\r", 0, ""},
        {"end of line only before it", found + "Location:", 0, ""},
        {"no such header", found + "Server: x\r\n\r\n", 0, ""},
        {"blanks around the pieces", "  HTTP/1.1   302\r\nLocation:x\r\n", 1, "x\r\n"},
        {"digits, then letters", "HTTP/1.1 302x\r\nLocation:x\r\n", 1, "x\r\n"},
        {"white space and a sign", "HTTP/1.1 \t+302\r\nLocation:x\r\n", 1, "x\r\n"},
        {"white space alone", "HTTP/1.1 \t 302\r\nLocation:x\r\n", 0, ""},
        {"another status", "HTTP/1.1 301 302\r\nLocation:x\r\n", 0, ""},
        {"a longer number", "HTTP/1.1 3020\r\nLocation:x\r\n", 0, ""},
        {"a number that overflows", "HTTP/1.1 99999999999999999999302\r\nLocation:x\r\n", 0, ""},
        {"status behind the first 64 bytes", std::string(63, 'H') + " 302\r\nLocation:x\r\n", 0,
         ""},
        {"status cut by the first 64 bytes", std::string(61, 'H') + " 3020\r\nLocation:x\r\n", 0,
         ""},
        {"status ends with the first 64 bytes", std::string(60, 'H') + " 302\r\nLocation:x\r\n", 1,
         "x\r\n"},
    };
    for (const auto &row : rows) {
        const pkt_ctx ctx = decode(ethernet(0x0800, ipv4(6, tcp(80, 1024, row.payload))));
        std::string padded = row.location;
        padded.resize(sizeof ctx.http_location);
        EXPECT_EQ(ctx.http_redirect, row.redirect) << row.what;
        EXPECT_EQ(std::string(ctx.http_location, sizeof ctx.http_location), padded) << row.what;
    }
}

TEST(Decode, HttpEndsWhereTheTrailerBegins) {
    // The end of line that the value needs lies behind the IPv4 packet: in the frame's padding, or
    // in the trailer.
    const octets frame = ethernet(0x0800, ipv4(6, tcp(80, 1024, "HTTP/1.1 302\r\nLocation: x")));
    const octets padded = frame + octets{'\r', '\n'};
    octets trailed = with_trailer(frame);
    trailed[frame.size()] = '\r';
    trailed[frame.size() + 1] = '\n';
    EXPECT_EQ(decode(with_trailer(padded)).http_redirect, 1);
    EXPECT_EQ(decode(trailed).http_redirect, 0);

    // A request to port 80 is no response, whatever it says.
    EXPECT_EQ(
        decode(ethernet(0x0800, ipv4(6, tcp(1024, 80, "x 302\r\nLocation:x\r\n")))).http_redirect,
        0);
}

} // namespace
