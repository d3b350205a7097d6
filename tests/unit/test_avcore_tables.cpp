// avcore's configuration, the client of a flow, and messages from whoever connects.
#include "avcore/base/line_cap.h"
#include "avcore/base/messages.h"
#include "avcore/enforce/held_packets.h"
#include "avcore/enforce/limits.h"
#include "avcore/flows/flow_table.h"
#include "avcore/flows/trailer_builder.h"
#include "avcore/frames/ipv6_frame.h"
#include "avcore/frames/wire_packets.h"
#include "avcore/names/stand_ins.h"
#include "avcore/report/report.h"
#include "avcore/settings/config.h"
#include "avcore/source/source.h"
#include "packet/decode/decode.h"
#include "support/frames.h"

#include <arpa/inet.h>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>

namespace {

using namespace avcore;

TEST(AvcoreConfig, MistakesNameTheirLineAndKey) {
    std::string deep = "\nx";
    for (int part = 1; part < 100'000; ++part)
        deep += ".x";
    const struct {
        const char *text;
        const char *message;
    } rows[] = {
        {"[client]\nutp = 3\n", "line 2: unknown key 'utp'; the keys are interface, if_index"},
        {"[client]\nutp_id = \"3\"\n", "line 2: 'utp_id'"},
        {"[uplink]\ninterface = \"sixteen-letters-\"\n", "line 2: 'interface'"},
        {"[[rule]]\nutp_id = 3\n", "line 1: a rule needs"},
        {"[[rule]]\nmac = \"02:00:00:00:00:-1\"\n", "line 2: 'mac'"},
        {"[[rule]]\nmac = 02:00:00:00:00:01\n",
         "line 2: Error while parsing time: expected '.', saw ':' (texts stand in quotes)"},
        {"[[rule]]\nnetwork = \"10.0.0.0/\"\n", "line 2: 'network'"},
        {"[[rule]]\nnetwork = \"10.0.0.0/33\"\n", "line 2: 'network'"},
        {"[[rule]]\nnetwork = \"2001:db8::/129\"\n", "line 2: 'network'"},
        {"[client]\nfilter_type = [\"url\",\n\"dpi\"]\n", "line 3: 'filter_type'"},
        {"[platform]\nbase_mac = \"1\"\n", "line 2: 'base_mac'"},
        {"[client]\nutp_id = 64\n", "line 2: 'utp_id' must be a whole number from 0 to 63"},
        {"[platform]\nbus_port = 5670\n", "line 2: unknown key 'bus_port'"},
        {"[platform.avc_enable]\nwlan0x = 1\n", "line 2: unknown key 'avc_enable/wlan0x'"},
        {"\"\\u001B[31m\" = 1\n", "line 1: unknown key '?[31m'"},
        {deep.c_str(), "line 2: more than 64 dots"},
        {"[bus]\nlisten = \"[::]\"\n", "line 2: 'listen'"},
        {"[bus]\nlisten = \"\"\ninsecure = true\n", "line 2: 'listen'"},
        {"[bus]\nkey = \"k\"\n", "line 1: 'ca'"},
        {"dpi = true\n[bus]\n", "line 2: [bus] needs 'ca'"},
        {"[bus]\nlisten = \"192.0.2.1:5670\"\n", "line 1: [bus] needs 'ca'"},
        {"[bus]\nlisten = \"[::ffff:0.0.0.0]:5670\"\ninsecure = false\n", "line 1: [bus] needs"},
        {"[bus]\nca = \"a\"\ncertificate = \"b\"\nkey = \"c\"\ninsecure = true\n",
         "line 5: 'insecure'"},
        {"[enforce]\nfail = \"shut\"\n", "line 2: 'fail' must be \"open\" or \"closed\""},
        {"[enforce]\ncopies = 0\n", "line 2: 'copies' must be 1 at least"},
        {"[enforce]\nundecided = \"wait\"\n", "line 2: 'undecided' must be \"pass\" or \"hold\""},
        {"[capture]\nkind = \"tun\"\n", "line 2: 'kind' must be \"veth\" or \"tap\""},
        {"[capture]\nkind = \"veth\"\nspeed = 10\n", "line 3: 'speed' is for kind = \"tap\""},
        {"[names]\nresolver = []\n", "line 2: unknown key 'resolver'"},
        {"[names]\nresolvers = \"192.0.2.53\"\n", "line 2: 'resolvers' must be a list"},
        {"[names]\nresolvers = [\"192.0.2.53\",\n\"10.1.0.53  02:00:00:00:00:53\"]\n",
         "line 3: 'resolvers' holds"},
        {"[names]\nresolvers = [\"192.0.2.0/24\"]\n", "line 2: 'resolvers' holds"},
        {"[web]\ncategories = [\"hosts.txt=Malware\",\n7]\n", "line 3: 'categories' holds"},
        {"[inline]\ninterfaces = [\"wlan0\",\n\"sixteen-letters-\"]\n", "line 3: 'interfaces'"},
        {"[[rule]]\nmac = \"1\"\n[client]\nutp_id = 64\n[[rule]]\nmac = \"2\"\n[enforce]\nfail = "
         "1\n",
         "line 4: 'utp_id' must be a whole number from 0 to 63\nf.toml, line 2: 'mac' must look "
         "like "
         "00:1a:2b:3c:4d:5e\nf.toml, line 6: 'mac' must look like 00:1a:2b:3c:4d:5e\nf.toml, line "
         "8: "
         "'fail' must be a text in quotes"},
        {"[client\n", "line 1: "},
    };
    for (const auto &row : rows) {
        try {
            parse_config(row.text, "f.toml");
            ADD_FAILURE() << "taken: " << row.text;
        } catch (const config_error &error) {
            EXPECT_EQ(std::string(error.what()).find(std::string("f.toml, ") + row.message), 0u)
                << error.what();
        }
    }
}

TEST(AvcoreConfig, WarnsOfRulesThatNeverHoldAndOfFilteredClients) {
    const std::string mac = "[[rule]]\nmac = \"02:00:00:00:00:01\"\n";
    const std::string here = "captured_on = \"br0\"\n";
    const std::string network = "[[rule]]\nnetwork = \"10.0.0.0/8\"\n";
    const struct {
        std::string text;
        std::vector<std::string> begins;
    } rows[] = {
        {mac + mac, {"f, line 3: the rule never holds, for the one in line 1"}},
        {mac + mac + here, {"f, line 3: the rule never"}},
        {mac + here + mac, {}},
        {network + mac + network, {"f, line 5: the rule never"}},
        {mac + "filter_type = [\"wificalling\"]\n" + network + "filter_type = [\"url\"]\n",
         {"f, line 6: 'filter_type' holds"}},
        {"[client]\nfilter_type = [\"url\"]\n" + mac, {"f, line 2: 'filter_type' holds"}},
        {"dpi = false\n[client]\nfilter_type = [\"url\"]\n", {}}, // nothing is filtered
    };
    for (const auto &row : rows) {
        const std::vector<std::string> warnings = parse_config(row.text, "f").warnings;
        EXPECT_TRUE(
            std::equal(warnings.begin(), warnings.end(), row.begins.begin(), row.begins.end(),
                       [](const auto &said, const auto &begin) { return said.starts_with(begin); }))
            << row.text << (warnings.empty() ? "nothing" : warnings.front());
    }
}

TEST(AvcoreLimits, ABucketIsItsOwnersUntilAllAreTaken) {
    limit_book book(3); // and bucket 0 is none
    limit_owner video;
    video.application = "video";
    limit_owner chat;
    chat.rates = {7, 0};
    limit_owner down = video;
    down.direction = GATE_DOWN;
    const uint32_t first = book.place_of(video, 1000).bucket;
    EXPECT_NE(first, 0u);
    const uint32_t second = book.place_of(chat, 1000).bucket;
    EXPECT_NE(second, first);
    EXPECT_FALSE(book.place_of(video, 1000).changed);
    EXPECT_TRUE(book.place_of(video, 2000).changed);
    EXPECT_EQ(book.place_of(down, 1).bucket, second); // chat's, asked for longest ago
    EXPECT_TRUE(book.place_of(video, 2000).bucket == first && book.place_of(chat, 9).changed);

    limit_book larger(9);
    for (const bool round : {false, true, false, true}) {
        ++chat.flow;
        EXPECT_EQ(larger.place_of(chat, 1000).judge_anew, round);
        EXPECT_FALSE(larger.place_of(chat, 1000).judge_anew);
    }
}

frame_facts tcp_frame(const char *from, uint16_t from_port, const char *to, uint16_t to_port) {
    frame_facts frame;
    frame.ipv4 = true;
    frame.ip_proto = 6;
    frame.ether_type = 0x0800;
    frame.sender = {{2, 0, 0, 0, 0, 1}, inet_addr(from), from_port};
    frame.receiver = {{2, 0, 0, 0, 0, 2}, inet_addr(to), to_port};
    return frame;
}

class AvcoreFlows : public testing::Test {
protected:
    std::string report(bool json) {
        std::string text;
        for (row_writer rows(flows, nullptr, json); rows.add_some(text);) {
        }
        return text;
    }
    config settings = parse_config("[[rule]]\nnetwork = \"10.1.0.0/16\"\nutp_id = 5\n"
                                   "interface = \"wlan7\"\nfilter_type = [\"url\"]\n"
                                   "[[rule]]\ncaptured_on = \"br0\"\nutp_id = 9\n",
                                   "f");
    client_rules rules{settings, ""};
    flow_table flows{rules, 2};
};

TEST_F(AvcoreFlows, ClientIsTheSideThatARuleNamesElseTheFirstSender) {
    const frame_facts reply = tcp_frame("192.0.2.7", 443, "10.1.0.2", 4000);
    const frame_facts query = tcp_frame("10.1.0.2", 4000, "192.0.2.7", 443);
    EXPECT_FALSE(flows.count_frame(reply, 100).from_client);
    const flow_table::sighting second = flows.count_frame(query, 50);
    EXPECT_TRUE(second.from_client);
    EXPECT_EQ(second.row.bytes, 150u);
    EXPECT_EQ(second.row.client.port, 4000);

    // The trailer's source is the side that sent the frame.
    const client_profile &client = rules.fitting_of(query.sender).profile;
    const av_pkt_trailer up = build_trailer(rules, client, query, second);
    const av_pkt_trailer down = build_trailer(rules, client, reply, {second.row, false});
    EXPECT_STREQ(up.src_if_name, "wlan7");
    EXPECT_STREQ(up.dst_if_name, "eth0");
    EXPECT_EQ(up.src_utp_id, 5u);
    EXPECT_STREQ(down.src_if_name, "eth0");
    EXPECT_EQ(down.dst_utp_id, 5u);
    EXPECT_EQ(down.src_utp_id, 0u);
    EXPECT_EQ(down.filter_type, AV_FILTER_URL);

    EXPECT_TRUE(flows.count_frame(tcp_frame("192.0.2.7", 443, "172.16.0.9", 1), 1).from_client);
    const side_profile stranger =
        client_rules(settings, "br0").fitting_of(reply.sender).profile.side;
    EXPECT_EQ(stranger.utp_id, 9u);
    EXPECT_EQ(stranger.if_name, "br0"); // the rule gives none
}

TEST_F(AvcoreFlows, TheLeastRecentlySeenAreSummedUpAndVerdictsGoOutOfDate) {
    const auto count = [this](uint16_t port) -> flow_row & {
        return flows.count_frame(tcp_frame("10.1.0.2", port, "192.0.2.7", 2), 10).row;
    };
    const uint32_t first = count(1).id;
    const uint32_t second = count(2).id;
    count(1);
    count(3);
    EXPECT_EQ(flows.summed().flows, 1u);

    av_verdict verdict = {};
    verdict.verdict = AV_VERDICT_DENY;
    memset(verdict.app_name, 'x', sizeof verdict.app_name); // no end in the field
    flows.set_verdict(first, verdict, {});
    flows.set_verdict(second, verdict, {}); // too late
    const std::vector<const flow_row *> rows = flows.rows();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0]->id, first);
    EXPECT_EQ(rows[0]->application.size(), 64u);
    EXPECT_EQ(rows[1]->verdict, 0u);
    flows.outdate_verdicts();
    EXPECT_TRUE(rows[0]->outdated);
    EXPECT_FALSE(rows[1]->outdated) << "never had one";
    flows.set_verdict(first, verdict, {});
    EXPECT_FALSE(rows[0]->outdated);

    EXPECT_NE(count(2).id, second);
    EXPECT_EQ(flows.summed().flows, 2u);
    EXPECT_EQ(flows.summed().packets, 3u);
    const std::string table = report(false);
    EXPECT_NE(table.find("\n2 flows, seen longest ago"), std::string::npos) << table;
    EXPECT_NE(table.find(" 10  02:00:00:00:00:01\n"), std::string::npos) << table;
}

TEST_F(AvcoreFlows, TheReportPutsAFlowsOwnNameWhereItStandsAmongTheDaemons) {
    const struct {
        const char *who, *shown;
        uint32_t match_info, path;
        const char *engine;
    } rows[] = {
        {"DNS", "own.example", 0, 0, "HTTP"},
        {"the web", "own.example", 0, AV_DECIDED_BY_WEB, "HTTP"},
        {"the web, past the administrator", "own.example", 1, AV_DECIDED_BY_WEB, "HTTP"},
        {"the administrator", "theirs.example", 1, 0, "HTTP"},
        {"the engine", "theirs.example", 0, 0, "YouTube"},
        {"a carrier", "theirs.example", 0, AV_DECIDED_BY_WIFICALLING, "HTTP"},
    };
    flow_row &flow = flows.count_frame(tcp_frame("10.1.0.2", 1, "192.0.2.7", 2), 10).row;
    flow.own_name = "own.example";
    for (const auto &row : rows) {
        av_verdict verdict = {};
        copy_text(verdict.app_name, "theirs.example");
        verdict.match_info = row.match_info;
        verdict.wificalling_f = row.path;
        av_pkt_trailer trailer = {};
        trailer.dpi_status = AV_DPI_IDENTIFIED;
        copy_text(trailer.dpi_app_name, row.engine);
        flows.set_verdict(flow.id, verdict, trailer);
        const std::string json = report(true);
        EXPECT_NE(json.find(row.shown), std::string::npos) << row.who << json;
    }
}

ip_address address(const char *text) {
    return *ip_address::parse(text);
}

TEST(AvcoreAddresses, NetworksHoldTheirOwnFamily) {
    const struct {
        const char *network, *held, *other;
    } rows[] = {
        {"2001:db8::/61", "2001:db8:0:7::1", "2001:db8:0:8::"},
        {"2001:db8::1", "2001:db8::1", "2001:db8::2"},
        {"::/0", "2001:db8::1", "10.0.0.1"},
        {"0.0.0.0/0", "10.0.0.1", "2001:db8::1"},
        {"10.20.0.0/14", "10.23.255.255", "10.24.0.0"},
    };
    for (const auto &row : rows) {
        EXPECT_TRUE(ip_network::parse(row.network)->holds(address(row.held))) << row.network;
        EXPECT_FALSE(ip_network::parse(row.network)->holds(address(row.other))) << row.network;
    }
}

TEST(AvcoreAddresses, StandInsComeInTurnAndAreShownAsWhatTheyStandInFor) {
    stand_in_table table(2, stand_in_table::LAST);
    const ip_address one = address("2001:db8::1");
    const ip_address two = address("2001:db8::2");
    EXPECT_EQ(table.stand_in_for(one), inet_addr("255.255.255.254"));
    EXPECT_EQ(table.stand_in_for(two), inet_addr("240.0.0.1"));
    table.stand_in_for(one);
    EXPECT_EQ(table.stand_in_for(address("2001:db8::3")), inet_addr("240.0.0.2"));
    EXPECT_FALSE(table.real(inet_addr("240.0.0.1"))) << "used longest ago";
    EXPECT_EQ(table.real(inet_addr("255.255.255.254")), one);
    EXPECT_EQ(with_real_addresses("255.255.255.254 240.0.0.2:443, \"240.0.0.2\" 240.0.0.1:1 "
                                  "240.0.0.2.example.org",
                                  [&table](uint32_t ip_be) { return table.real(ip_be); }),
              "2001:db8::1 [2001:db8::3]:443, \"2001:db8::3\" 240.0.0.1:1 240.0.0.2.example.org");
}

// An IPv6 packet with whatever headers; `length` is what it says.
octets ipv6(uint8_t next, const octets &rest, size_t length) {
    const ip_address one = address("2001:db8::1");
    const octets side(one.octets().begin(), one.octets().end());
    return octets{0x6A, 0xB0, 0, 0} + be16(length) + octets{next, 63} + side + side + rest;
}

TEST(AvcoreIpv6, IsShownAsFarAsItsHeadersCanBeWalked) {
    const octets data = {0x12, 0x34, 0x00, 0x50, 5, 6, 7, 8};
    const octets silent = octets{0x12, 0x34, 0x00, 0x35, 0, 0, 7, 8, 1, 2, 3, 4}; // of its length
    const auto option = [](uint8_t next) { return octets{next, 0, 0, 0, 0, 0, 0, 0}; };
    octets nine;
    for (int i = 0; i < 9; ++i)
        nine += option(i < 8 ? 60 : 6);
    const auto bare = [](uint8_t next, const octets &rest, size_t length) {
        return ethernet(0x86DD, ipv6(next, rest, length));
    };
    const octets fragment = {17, 0, 0x05, 0xB9, 0, 0, 0x43, 0x21}; // offset 1464, more follow
    const struct {
        const char *what;
        octets frame;
        uint8_t protocol;
        bool walked;
        uint16_t fragment;
        uint16_t total;
        size_t carried; // behind the IPv4 header
    } rows[] = {
        {"plain, padded", bare(6, data + octets(6, 0), 8), 6, true, 0, 28, 8},
        {"cut by the capture", bare(17, data, 1400), 17, true, 0, 1420, 8},
        {"without a length", bare(0, option(6) + data, 0), 6, true, 0, 28, 8},
        {"its datagram without a length", bare(17, silent, 12), 17, true, 0, 32, 12},
        {"the longest", bare(6, data, 65535), 6, true, 0, 65535, 8},
        {"options, routing, AH",
         bare(0, option(43) + option(51) + octets{6, 1} + octets(10, 0) + data, 36), 6, true, 0, 28,
         8},
        {"a later fragment", bare(44, fragment + data, 16), 17, true, 0x20B7, 28, 8},
        {"one of a header", bare(44, octets{60} + fragment.substr(1) + data, 16), 60, false, 0x20B7,
         28, 8},
        {"a header beyond the packet", bare(60, option(60) + data, 12), 60, false, 0, 24, 4},
        {"a header beyond the capture", bare(60, octets{6, 255} + data, 2048), 60, false, 0, 2068,
         10},
        {"nine headers", bare(60, nine + data, 80), 60, false, 0, 36, 16},
        {"an echo", bare(58, octets{128, 0}, 2), 1, true, 0, 22, 2},
        {"neighbour discovery", bare(58, octets{135, 0}, 2), 58, true, 0, 22, 2},
    };
    for (const auto &row : rows) {
        const octets exact = row.frame; // of its own size: a read beyond is caught
        const auto packet = find_ipv6_packet({exact.data(), exact.size()});
        ASSERT_TRUE(packet) << row.what;
        EXPECT_EQ(packet->walked, row.walked) << row.what;
        std::vector<uint8_t> shown;
        write_as_ipv4(*packet, inet_addr("240.0.0.1"), inet_addr("240.0.0.2"), shown);
        const byte_view ipv4 = ipv4_packet_in({shown.data(), shown.size()});
        ASSERT_EQ(ipv4.size(), 20 + row.carried) << row.what;
        EXPECT_EQ(ipv4.u16(0), 0x45AB) << row.what;
        EXPECT_EQ(ipv4.u16(2), row.total) << row.what;
        EXPECT_EQ(ipv4.u16(4), row.fragment != 0 ? 0x4321 : 0) << row.what;
        EXPECT_EQ(ipv4.u16(6), row.fragment) << row.what;
        EXPECT_EQ(ipv4.u16(8), 63 << 8 | row.protocol) << row.what;
        EXPECT_EQ(folded_sum(octets_of(ipv4.first(20).text())), 0xFFFF) << row.what;
        EXPECT_EQ(row.protocol == 1, ipv4.u8(20) == 8) << row.what;
        EXPECT_EQ(ipv4.u16(24) == row.carried, row.protocol == 17 && row.carried == silent.size())
            << row.what;
    }
    const octets cut = ethernet(0x86DD, ipv6(6, {}, 0));
    EXPECT_FALSE(find_ipv6_packet({cut.data(), cut.size() - 1}));
}

// Its frames have a tag and options (IPv6: an extension header).
struct wire_client {
    bool six;
    uint8_t protocol;
    bool fragments = false;
    wire_layout at = {}; // of the last frame
    uint16_t pseudo_header = 0;

    // With right checksums.
    octets frame(std::string_view data, uint8_t flags = 0x18, uint32_t sequence = 1, int id = 1) {
        const bool tcps = protocol == 6;
        const octets segment = tcps ? tcp(1, 443, data, flags, sequence) : udp(1, 443, data);
        const octets extension = {protocol, 0, 0, fragments, 0, 0, 0, 0};
        const ipv4_words words = {.fragment = fragments ? 0x2000u : 0x4000u, .options = be32(0)};
        octets packet = six ? ipv6(fragments ? 44 : 60, extension + segment, 8 + segment.size())
                            : ipv4(protocol, segment, words);
        if (!six) {
            packet.replace(4, 2, be16(uint16_t(id)));
            packet.replace(10, 2, be16(uint16_t(~folded_sum(packet.substr(0, 24)))));
        }
        const size_t transport = 18 + packet.size() - segment.size();
        at = {18, transport, transport + (tcps ? 20 : 8), 18 + packet.size(), protocol, six};
        pseudo_header = folded_sum(packet.substr(six ? 8 : 12, six ? 32 : 8) + be16(protocol) +
                                   be16(segment.size()));
        const auto sum = uint16_t(~folded_sum(be16(pseudo_header) + segment));
        return with(vlan(six ? 0x86DD : 0x0800, packet), sum == 0 && !tcps ? 0xFFFF : sum);
    }
    octets with(octets frame, size_t checksum) const {
        return frame.replace(at.transport + (protocol == 6 ? 16 : 6), 2, be16(checksum));
    }
};
const wire_client WIRE_CLIENTS[] = {{false, 6}, {false, 17}, {true, 6}, {true, 17}};

std::vector<octets> on_the_wire(const octets &frame, const wire_layout &at, uint16_t segment_size) {
    std::vector<octets> packets;
    const octets exact = frame; // of its own size: a read beyond is caught
    for (const auto &packet : wire_packets({exact.data(), exact.size()}, at, segment_size))
        packets.emplace_back(packet.begin(), packet.end());
    return packets;
}

TEST(AvcoreWirePackets, JoinedOnesAreCutAsTheyWereSent) {
    const std::string_view data = "seven, seven, six";
    for (wire_client client : WIRE_CLIENTS) {
        for (const size_t checksum : {size_t{0x1234}, size_t{0}}) {
            const octets all = client.frame(data, 0xD9, 0xFFFFFFFC, 0xFFFF);
            const auto cut = on_the_wire(client.with(all, checksum) + octets(5, 0), client.at, 7);
            const bool unchecked = checksum == 0 && client.protocol == 17 && !client.six;
            const auto sent = [&](size_t from, uint8_t flags, uint32_t sequence, int id) {
                const octets one = client.frame(data.substr(from, 7), flags, sequence, id);
                return unchecked ? client.with(one, 0) : one;
            };
            EXPECT_EQ(cut, (std::vector{sent(0, 0xD0, 0xFFFFFFFC, 0xFFFF), sent(7, 0x50, 3, 0),
                                        sent(14, 0x59, 10, 1)}));
        }
    }
}

TEST(AvcoreWirePackets, OfOnePacketAPartialChecksumIsCompleted) {
    for (wire_client client : WIRE_CLIENTS) {
        const octets zeros = client.frame({"\0\0", 2});
        const char *checksum = reinterpret_cast<const char *>(zeros.data()) + client.at.transport +
                               (client.protocol == 6 ? 16 : 6);
        for (const std::string &data : {std::string("odd"), std::string(checksum, 2)}) {
            const octets right = client.frame(data) + octets{1, 2, 3};
            const octets partial = client.with(right, client.pseudo_header);
            EXPECT_EQ(on_the_wire(partial, client.at, 0), std::vector{right});
            EXPECT_EQ(on_the_wire(partial, client.at, 3), std::vector{right}) << "joined by none";
            for (const octets &kept :
                 {right, client.with(right, client.pseudo_header + 1u), client.with(right, 0)})
                EXPECT_EQ(on_the_wire(kept, client.at, 0), std::vector{kept});
        }
    }
}

TEST(AvcoreWirePackets, FragmentsTunnelsAndWhatContradictsItselfStay) {
    for (wire_client client : WIRE_CLIENTS) {
        const octets whole = client.frame("data");
        const octets partial = client.with(whole, client.pseudo_header);
        std::vector<wire_layout> wrong(9, client.at);
        wrong[0].network = client.at.transport - (client.six ? 39 : 19);
        wrong[1].network = client.at.transport + 1;
        wrong[2].transport = client.at.payload - (client.protocol == 6 ? 19 : 7);
        wrong[3].transport = SIZE_MAX;
        wrong[4].payload = client.at.end + 1;
        wrong[5].payload = SIZE_MAX;
        wrong[6].end = client.at.payload - 1;
        wrong[7].end = partial.size() + 1;
        wrong[8].protocol = 47;
        client.fragments = true;
        const octets fragment = client.frame("data");
        const octets first = client.with(fragment, client.pseudo_header);
        for (const auto segment_size : {uint16_t{0}, uint16_t{1}}) {
            for (size_t i = 0; i < wrong.size(); ++i)
                EXPECT_EQ(on_the_wire(partial, wrong[i], segment_size), std::vector{partial}) << i;
            EXPECT_EQ(on_the_wire(first, client.at, segment_size), std::vector{first});
        }
    }
}

TEST(AvcoreSource, TimeStampsStayInBoundsWhereAgesCanBeAdded) {
    const struct {
        uint32_t section[7] = {0x0A0D0D0A, 28, 0x1A2B3C4D, 1, ~0u, ~0u, 28};
        uint32_t interface[8] = {1, 32, 1, 65'535, 9 | 1 << 16, 0, 0, 32}; // if_tsresol 0: seconds
        uint32_t packet[9] = {6, 36, 0, 0x7FFFFFFF, ~0u, 1, 1, 'x', 36};
    } capture;
    const std::string path = testing::TempDir() + "avcore_stamps.pcapng";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(&capture), sizeof capture);
    frame_source source = frame_source::open_file(path);
    source.set_max_frame_size(100);
    captured_frame frame;
    frame_source::result read = frame_source::result::nothing;
    while (read == frame_source::result::nothing)
        read = source.next(frame);
    ASSERT_EQ(read, frame_source::result::frame) << source.error();
    EXPECT_GE(frame.time_us, 0); // libpcap keeps the lower half of the seconds on 32 bits
    EXPECT_LT(frame.time_us, INT64_MAX / 2);
    unlink(path.c_str());
}

std::vector<std::byte> message(std::initializer_list<uint32_t> words, size_t padding) {
    std::vector<std::byte> bytes(words.size() * 4);
    memcpy(bytes.data(), words.begin(), bytes.size());
    bytes.resize(bytes.size() + padding, std::byte{0x41});
    return bytes;
}

TEST(AvcoreMessages, TakesOnlyWhatIsExactlyAMessage) {
    EXPECT_TRUE(
        std::holds_alternative<av_verdict>(*parse_message(message({1, 0, 8, 0, 232}, 232))));
    EXPECT_TRUE(
        std::holds_alternative<ignored_message>(*parse_message(message({1, 0, 9, 0, 3}, 3))));
    const struct {
        std::initializer_list<uint32_t> words;
        size_t padding;
    } malformed[] = {
        {{1}, 0},                      // no sequence number
        {{1, 0, 8, 0}, 0},             // no length
        {{1, 0, 8, 0, 232}, 231},      // longer than it is
        {{1, 0, 8, 0, 232}, 233},      //
        {{1, 0, 8, 0, 0xFFFFFFFF}, 4}, //
        {{1, 0, 8, 0, 8}, 8},          // no verdict
        {{2, 0}, 159},                 // no flow's verdict
        {{3, 0}, 1},                   // has no body
        {{4, 0, 0, 1}, 24},            // no such switch
        {{4, 0, 1, 1}, 23},            //
        {{5, 0, 4}, 104},              // no such action
        {{6, 0}, 3},                   // no level
    };
    for (const auto &row : malformed)
        EXPECT_FALSE(parse_message(message(row.words, row.padding))) << *row.words.begin();

    const std::vector<std::byte> unknown = message({77, 9}, 5);
    const auto parsed = parse_message(unknown);
    const auto &asked = std::get<question>(*parsed);
    EXPECT_EQ(make_answer(asked, -1, asked.body).size(), 12u) << "no body with a failure";
}

TEST(AvcoreLog, FiveLinesASecondAndTheNextSaysHowManyHadNone) {
    line_cap cap;
    std::string written;
    for (int64_t ms = 10'000; ms <= 11'000; ms += 100)
        if (cap.admits(ms))
            written += 'x' + cap.remark();
    EXPECT_EQ(written, "xxxxxx (and 5 more)");
}

// What is held of flows, which are told apart by their port; frames by their last byte.
class AvcoreHeldPackets : public testing::Test {
protected:
    static gate_flow flow(int port) {
        gate_flow flow = {};
        flow.client_port_be = static_cast<uint16_t>(port);
        return flow;
    }
    bool add(int port, int number, int client = 1, uint64_t at_ms = 0, size_t size = 60) {
        std::vector<uint8_t> frame(size, static_cast<uint8_t>(client));
        frame.back() = static_cast<uint8_t>(number);
        gate_copy head = {};
        head.flow = flow(port);
        head.time_ns = at_ms * 1'000'000;
        return packets.add(head, frame);
    }

    octets back;
    held_packets packets{[this](const held_packet &packet) { back += packet.frame.back(); }};
};

TEST_F(AvcoreHeldPackets, GoOnInTheirOrder) {
    for (const auto &[port, number] : {std::pair(1, 1), {2, 2}, {1, 3}})
        EXPECT_TRUE(add(port, number));
    EXPECT_FALSE(packets.first_overdue(999));
    gate_verdict verdict = {};
    verdict.priority = 7;
    packets.let_go(flow(1), verdict, 500);
    EXPECT_EQ(back, (octets{1, 3}));
    EXPECT_TRUE(add(1, 4)) << "it is behind them";
    EXPECT_EQ(back, (octets{1, 3, 4}));
    EXPECT_TRUE(packets.knows(flow(1)) && !packets.waits(flow(1)) && packets.waits(flow(2)));
    EXPECT_EQ(packets.first_overdue(1000)->client_port_be, 2);
    EXPECT_EQ(packets.drop_overdue(flow(2), 1000), 1U);
    EXPECT_FALSE(packets.first_overdue(1999));
    EXPECT_EQ(packets.first_overdue(2000)->client_port_be, 1);
    EXPECT_EQ(packets.forget(flow(1)).priority, 7U);
    EXPECT_EQ(packets.next_due_ms(), NEVER_MS);
    packets.let_go(flow(5), verdict, 2000);
    EXPECT_TRUE(add(5, 5)) << "it was in the ring";
    EXPECT_EQ(back.back(), 5);
}

TEST_F(AvcoreHeldPackets, OfOneClientLeaveRoomForOthers) {
    for (size_t i = 0; i < held_packets::CLIENT_PACKETS; ++i)
        ASSERT_TRUE(add(1, 1, 1, i));
    EXPECT_FALSE(add(1, 1) || add(2, 1));
    EXPECT_FALSE(packets.knows(flow(2)));
    EXPECT_TRUE(add(3, 1, 2));
    EXPECT_EQ(packets.drop_overdue(flow(1), 1009), 10U) << "each has its own second";
    EXPECT_TRUE(add(2, 1));
    const size_t fit = held_packets::CLIENT_BYTES / GATE_HELD_MAX;
    for (size_t i = 0; i < fit + 1; ++i)
        EXPECT_EQ(add(4, 1, 3, 0, GATE_HELD_MAX), i < fit);
    size_t more = 0;
    for (int port = 10; add(port, 1, port % 64 + 10); ++port)
        ++more;
    EXPECT_LE(more, held_packets::ALL_PACKETS);
}

TEST_F(AvcoreHeldPackets, CountAsThePacketsThatWereJoined) {
    gate_copy head = {};
    head.flow.proto = IPPROTO_UDP;
    head.segment_size = 4;
    head.payload = 42;
    head.end = head.payload + 4 * held_packets::CLIENT_PACKETS;
    octets frame(head.end, 1);
    EXPECT_TRUE(packets.add(head, frame));
    EXPECT_FALSE(add(1, 1));
    packets.let_go(head.flow, {}, 0);
    EXPECT_TRUE(add(1, 1));
    ++head.end;
    frame.push_back(1);
    EXPECT_FALSE(packets.add(head, frame)) << "too many to be written at once";
    EXPECT_EQ(back.size(), 1U);
}

} // namespace
