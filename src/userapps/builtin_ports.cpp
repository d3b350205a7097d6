#include "userapps/builtin_ports.h"

#include "core/text/text.h"

#include <algorithm>
#include <array>
#include <netinet/in.h>
#include <span>
#include <string_view>

namespace {

enum row_protocols : uint8_t { TCP = 1, UDP = 2, BOTH = TCP | UDP };

constexpr port_service row(uint32_t begin_port, uint32_t end_port, row_protocols protocols,
                           std::string_view name) {
    port_service service = {};
    service.begin_port = begin_port;
    service.end_port = end_port;
    service.tcp_flag = (protocols & TCP) != 0 ? 1 : 0;
    service.udp_flag = (protocols & UDP) != 0 ? 1 : 0;
    std::copy(name.begin(), name.end(), service.app_name);
    return service;
}

constexpr row_protocols NO_PROTOCOL{};

} // namespace

// clang-format off
constexpr port_service builtin_port_app_table[BUILTIN_PORT_APPS + 1] = {
    row(1, 1, BOTH, "TCP-Port-Service-Multiplexer"),
    row(2, 2, BOTH, "CompressNET-Management-Utility"),
    row(3, 3, BOTH, "CompressNET-Compression-Process"),
    row(5, 5, BOTH, "Remote-Job-Entry"),
    row(7, 7, BOTH, "Echo-Protocol"),
    row(11, 11, BOTH, "Active-Users"),
    row(13, 13, BOTH, "Daytime-Protocol"),
    row(17, 17, BOTH, "Quote-Of-the-Day"),
    row(18, 18, BOTH, "Message-Send-Protocol"),
    row(19, 19, BOTH, "Character-Generator-Protocol"),
    row(20, 20, BOTH, "FTP-Data"),
    row(21, 21, TCP, "FTP-Control"),
    row(22, 22, BOTH, "SSH"),
    row(23, 23, BOTH, "Telnet"),
    row(24, 24, BOTH, "Private-Mail"),
    row(25, 25, TCP, "SMTP"),
    row(53, 53, BOTH, "DNS"),
    row(67, 68, UDP, "DHCP"),
    row(69, 69, UDP, "TFTP"),
    row(79, 79, TCP, "Finger"),
    row(80, 80, TCP, "Miscellaneous-HTTP"),
    row(88, 88, TCP, "Kerberos"),
    row(106, 106, TCP, "Mac-Password-Server"),
    row(110, 110, TCP, "POP3-Mail"),
    row(113, 113, TCP, "Ident"),
    row(115, 115, BOTH, "Simple-File-Transfer"),
    row(119, 119, TCP, "Newsgroup-NNTP"),
    row(123, 123, BOTH, "NTP"),
    row(137, 138, UDP, "Windows-Networking"),
    row(139, 139, TCP, "Windows-File-and-Print-Services"),
    row(143, 143, TCP, "IMAP"),
    row(161, 161, BOTH, "SNMP"),
    row(162, 162, BOTH, "SNMP-Trap"),
    row(192, 192, UDP, "Airport-NMS"),
    row(311, 311, TCP, "Apple-Secure-Server-Admin"),
    row(312, 312, TCP, "Apple-Xsan-Admin"),
    row(389, 389, TCP, "LLDP"),
    row(427, 427, BOTH, "Network-Browser-Service-Location"),
    row(443, 443, TCP, "Miscellaneous-HTTPs"),
    row(445, 445, BOTH, "Common-Internet-File-System"),
    row(464, 464, BOTH, "Kerberos-Change-Password"),
    row(465, 465, TCP, "URL-Rendesvous-Directory-for-SSM"),
    row(500, 500, UDP, "Apple-VPN"),
    row(514, 514, TCP, "Apple-Shell"),
    row(514, 514, UDP, "Syslog"),
    row(515, 515, TCP, "Printing"),
    row(532, 532, TCP, "Apple-Netnews"),
    row(546, 547, BOTH, "DHCPv6"),
    row(548, 548, TCP, "Apple-File-Service"),
    row(554, 554, BOTH, "Real-Time-Streaming"),
    row(587, 587, TCP, "SMTP"),
    row(601, 601, BOTH, "Syslog"),
    row(623, 623, UDP, "Lights-Out-Monitoring"),
    row(625, 625, TCP, "Apple-Directory-Service"),
    row(631, 631, TCP, "Internet-Printing"),
    row(636, 636, TCP, "Secure-LDAP"),
    row(749, 749, BOTH, "Kerberos-5-Password"),
    row(985, 985, TCP, "Apple-Netinfo"),
    row(989, 990, BOTH, "FTP-Over-TLSSSL"),
    row(992, 992, BOTH, "Telnet-Over-TLSSSL"),
    row(993, 993, BOTH, "IMAP-SSL"),
    row(995, 995, BOTH, "POP-SSL"),
    row(1085, 1085, BOTH, "WEB-Objects"),
    row(1119, 1119, BOTH, "Game-Network"),
    row(1701, 1701, UDP, "L2TP-VPN"),
    row(1723, 1723, TCP, "PPTP-VPN"),
    row(1900, 1900, UDP, "Bonjour"),
    row(2049, 2049, BOTH, "NFS"),
    row(2190, 2190, BOTH, "TiVo"),
    row(2195, 2196, TCP, "Apple-Push-Notification-Service"),
    row(2336, 2336, TCP, "Mobile-Account-Sync"),
    row(3004, 3004, TCP, "iSync"),
    row(3074, 3074, BOTH, "Xbox-Live"),
    row(3128, 3128, TCP, "Web Proxy"),
    row(3283, 3283, BOTH, "Apple-Remote-Desktop"),
    row(3334, 3337, BOTH, "DirectTV"),
    row(3658, 3658, BOTH, "PlayStation"),
    row(3689, 3689, TCP, "iTune-Music"),
    row(3765, 3765, BOTH, "traceroute"),
    row(4011, 4011, BOTH, "DHCP-PXE"),
    row(4398, 4398, UDP, "Game-Center"),
    row(4488, 4488, TCP, "Apple-Wide-Area-Connectivity"),
    row(4500, 4500, BOTH, "IPsec-NAT-Traversal"),
    row(4658, 4659, BOTH, "PlayStation"),
    row(5004, 5005, BOTH, "RTP-Media-Streaming"),
    row(5060, 5060, UDP, "SIP"),
    row(5100, 5100, TCP, "Mac-Camera-Scanner-Sharing"),
    row(5190, 5190, BOTH, "iChat-AOL-Instant-Message"),
    row(5222, 5222, TCP, "iChat-Jabber-Client"),
    row(5223, 5223, TCP, "Apple-Push-Notification-Service"),
    row(5228, 5230, BOTH, "Google-Cloud-Messaging"),
    row(5297, 5297, TCP, "iChat-Local-Messaging"),
    row(5298, 5298, BOTH, "iChat-XMPP-Local-Messaging"),
    row(5350, 5351, UDP, "Bonjour"),
    row(5353, 5354, BOTH, "Bonjour"),
    row(5900, 5900, TCP, "Apple-Remote-Desktop"),
    row(5988, 5988, TCP, "Apple-Remote-Desktop"),
    row(6514, 6514, BOTH, "Syslog-Over-TLS"),
    row(6588, 6588, TCP, "Web Proxy"),
    row(7070, 7070, TCP, "Quicktime-Streaming"),
    row(8078, 8079, BOTH, "Tivo"),
    row(8170, 8171, TCP, "Podcast"),
    row(8200, 8200, BOTH, "Tivo"),
    row(8332, 8333, BOTH, "Bitcoin"),
    row(8610, 8614, BOTH, "Canon-Printing"),
    row(8770, 8770, BOTH, "Apple-iPhoto"),
    row(8880, 8880, BOTH, "CDDBP"),
    row(8883, 8883, BOTH, "MQTT"),
    row(11211, 11211, BOTH, "Memcache"),
    row(17500, 17500, BOTH, "Dropbox-Lansync"),
    row(33434, 33434, BOTH, "Traceroute"),
    row(0xFFFFFFFF, 0xFFFFFFFF, NO_PROTOCOL, ""),
};
// clang-format on

namespace {

constexpr std::span<const port_service> SERVICES(builtin_port_app_table, BUILTIN_PORT_APPS);

constexpr auto count_rows(bool (*wanted)(const port_service &)) {
    return std::count_if(SERVICES.begin(), SERVICES.end(), wanted);
}
constexpr bool is_tcp(const port_service &service) {
    return service.tcp_flag != 0;
}
constexpr bool is_udp(const port_service &service) {
    return service.udp_flag != 0;
}
static_assert(count_rows([](const port_service &s) { return is_tcp(s) && is_udp(s); }) == 58);
static_assert(count_rows([](const port_service &s) { return is_tcp(s) && !is_udp(s); }) == 41);
static_assert(count_rows([](const port_service &s) { return !is_tcp(s) && is_udp(s); }) == 12);
static_assert(count_rows([](const port_service &s) { return s.begin_port < s.end_port; }) == 15);

constexpr uint8_t NO_ROW = 255; // behind every row
static_assert(BUILTIN_PORT_APPS < NO_ROW);

// The first row that a port has under one protocol.
constexpr uint8_t first_row(bool (*has_protocol)(const port_service &), uint32_t port) {
    for (size_t i = 0; i < SERVICES.size(); ++i) {
        const port_service &service = SERVICES[i];
        if (has_protocol(service) && service.begin_port <= port && port <= service.end_port)
            return static_cast<uint8_t>(i);
    }
    return NO_ROW;
}

// All ports, cut into ranges of the same first row: each starts where it says and ends where the
// next one starts.
struct port_ranges {
    static constexpr size_t RANGES_MAX = 2 * BUILTIN_PORT_APPS + 1;

    size_t count = 0;
    std::array<uint16_t, RANGES_MAX> begin = {};
    std::array<uint8_t, RANGES_MAX> row = {};

    constexpr explicit port_ranges(bool (*has_protocol)(const port_service &)) {
        // A range can only start at port 0, where a row starts and behind a row's end.
        std::array<uint32_t, RANGES_MAX> starts = {};
        size_t start_count = 1;
        for (const port_service &service : SERVICES) {
            starts[start_count++] = service.begin_port;
            starts[start_count++] = service.end_port + 1;
        }
        std::sort(starts.begin(), starts.end());
        for (const uint32_t start : starts) {
            const uint8_t first = first_row(has_protocol, start);
            if (start > UINT16_MAX || (count != 0 && first == row[count - 1]))
                continue;
            begin[count] = static_cast<uint16_t>(start);
            row[count++] = first;
        }
    }

    uint8_t find(uint16_t port) const {
        const auto *next = std::upper_bound(begin.data(), begin.data() + count, port);
        return row[static_cast<size_t>(next - begin.data()) - 1];
    }
};

constexpr port_ranges TCP_RANGES(is_tcp);
constexpr port_ranges UDP_RANGES(is_udp);

} // namespace

int jorn_detect_pkt_builtin_port_service_app(pkt_ctx *pkt) {
    if (pkt->ip_proto != IPPROTO_TCP && pkt->ip_proto != IPPROTO_UDP)
        return 0;
    const port_ranges &ranges = pkt->ip_proto == IPPROTO_TCP ? TCP_RANGES : UDP_RANGES;
    const uint8_t found = std::min(ranges.find(pkt->src_port), ranges.find(pkt->dst_port));
    if (found == NO_ROW)
        return 0;
    const char *name = SERVICES[found].app_name;
    if (pkt->app_source != APP_SOURCE_NONE) {
        copy_lower_case(pkt->orig_app, name);
        return 1;
    }
    copy_lower_case(pkt->app_name, name);
    pkt->app_source = APP_SOURCE_BUILTIN_PORT;
    return 1;
}
