// What avcore learns about flows: names from DNS answers, hostile ones among them, and nDPI's
// findings.
#include "avcore/engine/dpi.h"
#include "avcore/flows/frame_builder.h"
#include "avcore/names/client_names.h"
#include "avcore/names/dhcp.h"
#include "avcore/names/dns_names.h"
#include "support/quic_packets.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

using namespace avcore;
using bytes = std::string;

bytes u16(unsigned value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

bytes name(std::string_view text) {
    bytes wire;
    for (size_t dot; !text.empty(); text.remove_prefix(std::min(dot, text.size() - 1) + 1)) {
        dot = text.find('.');
        const std::string_view label = text.substr(0, dot);
        wire += static_cast<char>(label.size());
        wire += label;
    }
    return wire + '\0';
}

bytes record(const bytes &owner, unsigned type, const bytes &data, unsigned ttl_s = 60) {
    return owner + u16(type) + u16(1) + u16(0) + u16(ttl_s) + u16(unsigned(data.size())) + data;
}

bytes address(const char *text, const bytes &owner, unsigned ttl_s = 60) {
    const uint32_t address_be = inet_addr(text);
    return record(owner, 1, bytes(reinterpret_cast<const char *>(&address_be), 4), ttl_s);
}

bytes message(std::initializer_list<bytes> records, const bytes &asked, unsigned flags,
              unsigned questions = 1, unsigned id = 7) {
    bytes wire = u16(id) + u16(flags) + u16(questions) + u16(unsigned(records.size())) + u16(0) +
                 u16(0) + asked + u16(1) + u16(1);
    for (const bytes &one : records)
        wire += one;
    return wire;
}

dns_answer read(std::initializer_list<bytes> records, const bytes &asked = name("www.example.org"),
                unsigned flags = 0x8180, unsigned questions = 1) {
    const bytes wire = message(records, asked, flags, questions);
    return read_dns_answer({reinterpret_cast<const uint8_t *>(wire.data()), wire.size()});
}

const bytes ASKED = "\xC0\x0C"; // a pointer to the question's name

// The address of a name that as many pointers lead to, which lie in a record before it.
dns_answer read_behind_pointers(unsigned count) {
    unsigned at = 33 + 12;
    bytes pointers = ASKED;
    for (; count > 2; --count, at += 2)
        pointers += u16(0xC000 | at);
    return read({record(ASKED, 16, pointers), address("192.0.2.1", u16(0xC000 | at))});
}

TEST(AvcoreDns, FollowsAliasesBackToTheNameAsked) {
    // In any order, in any letter case, and past addresses of other names.
    const dns_answer answer = read({address("192.0.2.1", name("EDGE.example.net")),
                                    record(name("cdn.example.net"), 5, name("edge.example.net")),
                                    address("192.0.2.66", name("other.example.net")),
                                    record(ASKED, 5, name("CDN.example.net")),
                                    address("192.0.2.2", name("edge.example.net"))});
    EXPECT_EQ(answer.name, "www.example.org");
    ASSERT_EQ(answer.findings.size(), 2u);
    EXPECT_EQ(answer.findings[1].address, inet_addr("192.0.2.2"));
}

TEST(AvcoreDns, HostileAnswersTeachNothing) {
    const bytes good = address("192.0.2.1", ASKED);
    EXPECT_EQ(read({good}).findings.size(), 1u);
    EXPECT_EQ(read_behind_pointers(127).findings.size(), 1u);
    const struct {
        const char *what;
        dns_answer answer;
    } rows[] = {
        {"a query", read({good}, name("a.b"), 0x0100)},
        {"an error", read({good}, name("a.b"), 0x8183)},
        {"two questions", read({good}, name("a.b"), 0x8180, 2)},
        {"a name that points at itself", read({good}, ASKED)},
        {"a name that points forward", read({good}, "\xC0\x20")},
        {"a name with a loop behind a label", read({good}, "\1a\xC0\x0C")},
        {"more pointers than a name has labels", read_behind_pointers(128)},
        {"a reserved label type", read({good}, "\x80x")},
        {"a control character", read({good}, bytes("\3a\nb\0", 5))},
        {"a NUL", read({good}, bytes("\3a\0b\0", 5))},
        {"a dot in a label", read({good}, bytes("\3a.b\0", 5))},
        {"254 characters", read({good}, name(bytes(63, 'a') + '.' + bytes(63, 'b') + '.' +
                                             bytes(63, 'c') + '.' + bytes(62, 'd')))},
        {"aliases in a circle",
         read({record(ASKED, 5, name("b.c")), record(name("b.c"), 5, ASKED)})},
        {"an address that could be a stand-in", read({address("240.0.0.1", ASKED)})},
        {"an address of three bytes", read({record(ASKED, 1, "abc")})},
        {"a record longer than the message", read({good.substr(0, good.size() - 1)})},
    };
    for (const auto &row : rows)
        EXPECT_TRUE(row.answer.findings.empty()) << row.what;
    // What precedes a record that is cut still counts.
    EXPECT_EQ(read({good, good.substr(0, 8)}).findings.size(), 1u);
}

TEST(AvcoreDns, NamesLastForTheirTtlAndTheNewerHolds) {
    dns_names names(2);
    constexpr int64_t second_us = 1'000'000;
    const uint32_t one = inet_addr("192.0.2.1");
    names.learn(read({address("192.0.2.1", ASKED, 60)}), 0);
    names.learn(read({address("192.0.2.1", ASKED, 10)}, name("new.example.org")), second_us);
    ASSERT_NE(names.find(one, 11 * second_us - 1), nullptr);
    EXPECT_EQ(*names.find(one, 2 * second_us), "new.example.org");
    EXPECT_EQ(names.find(one, 11 * second_us), nullptr);

    names.learn(read({address("192.0.2.2", ASKED), address("192.0.2.3", ASKED)}), second_us);
    EXPECT_EQ(names.size(), 2u);
    EXPECT_EQ(names.find(one, 2 * second_us), nullptr);

    // A question of eight bytes: the address and room for four characters and their end.
    uint32_t body[] = {inet_addr("192.0.2.3"), 5};
    const question asked = {{av_op::dnscache_get_name, 1}, std::as_bytes(std::span(body))};
    // An answer with IPv6 addresses teaches a name, and takes no stand-in.
    const ip_address six = *ip_address::parse("2001:db8::7");
    stand_in_table stand_ins;
    name_timeline timeline;
    timeline.add(1, {second_us, read({address("192.0.2.3", ASKED)})});
    timeline.add(
        2, {second_us, read({record(ASKED, 28, bytes(six.octets().begin(), six.octets().end()))},
                            name("six.example.org"))});
    timeline.advance(2);
    const std::vector<std::byte> answer = answer_domain_name(timeline, stand_ins, asked);
    ASSERT_EQ(answer.size(), 12u + 12u + 256u);
    EXPECT_STREQ(reinterpret_cast<const char *>(&answer[24]), "www.");
    EXPECT_EQ(answer_domain_name(timeline, stand_ins, {asked.head, asked.body.first(7)}).size(),
              12u);
    EXPECT_EQ(stand_ins.size(), 0u);
    body[0] = stand_ins.stand_in_for(six);
    EXPECT_STREQ(
        reinterpret_cast<const char *>(&answer_domain_name(timeline, stand_ins, asked)[24]),
        "six.");
}

// What the daemon makes of the word: an answer "none" that it got under it.
class AvcoreNameWord : public testing::Test {
protected:
    // Reads the next frame, an answer that names an address or none, so many seconds after the
    // first one.
    bool raised_by_frame(int64_t seconds, const bytes &answer = {}) {
        const octets dns = udp(53, 1000, answer);
        return raised_by([&] {
            read_frame(ethernet(0x0800, ipv4(17, answer.empty() ? udp(1, 2, "") : dns)), seconds);
        });
    }
    bool raised_by_stand_in(const ip_address &six) {
        const octets head = {0x60, 0, 0, 0, 0, 8, 17, 64};
        const octets sides =
            octets(15, 0x20) + octets{1} + octets(six.octets().data(), six.octets().size());
        return raised_by(
            [&] { read_frame(ethernet(0x86DD, head + sides + udp(1, 2, "")), now_s); });
    }
    // The daemon judges this frame, and asks.
    bool raised_by_question(uint64_t frame, const ip_address &asked = inet_addr("192.0.2.1")) {
        timeline.advance(frame);
        return raised_by([&] { EXPECT_EQ(timeline.find(asked), nullptr); });
    }

    static bytes naming(const char *text) {
        return message({address(text, ASKED, 10)}, name("a.b"), 0x8180);
    }

    name_timeline timeline;

private:
    template <typename Act>
    bool raised_by(Act act) {
        const uint32_t before = word();
        act();
        return word() != before;
    }
    void read_frame(const octets &frame, int64_t seconds) {
        now_s = seconds;
        timeline.add(++frames, builder.build({frame, seconds * 1'000'000, {}, nullptr})->lesson);
    }
    uint32_t word() const {
        uint32_t value = 0;
        EXPECT_EQ(pread(timeline.word().descriptor(), &value, sizeof value, 0), 4);
        return value;
    }

    const config settings = {};
    frame_builder builder{settings, ""};
    uint64_t frames = 0;
    int64_t now_s = 0;
};

TEST_F(AvcoreNameWord, IsRaisedBeforeAnAddressMayHaveAName) {
    EXPECT_FALSE(raised_by_frame(1));
    EXPECT_FALSE(raised_by_question(1));
    EXPECT_TRUE(raised_by_frame(2, naming("192.0.2.1")));
    EXPECT_TRUE(raised_by_question(1)) << "none yet, but it is known that there will be one";
    EXPECT_FALSE(raised_by_question(1, inet_addr("192.0.2.2")));
    EXPECT_FALSE(raised_by_frame(11, naming("192.0.2.1"))) << "it had it before";
    EXPECT_FALSE(raised_by_frame(30));
    EXPECT_FALSE(raised_by_question(4)) << "its time is over";
    EXPECT_FALSE(raised_by_frame(21)) << "and still is";
    EXPECT_TRUE(raised_by_frame(20)) << "and now isn't";
    EXPECT_TRUE(raised_by_question(5)) << "until then it is";
    EXPECT_FALSE(raised_by_frame(40));
    EXPECT_TRUE(raised_by_frame(41, naming("192.0.2.1")));
}

TEST_F(AvcoreNameWord, IsRaisedWhereAStandInComesToAName) {
    const ip_address six = *ip_address::parse("2001:db8::7");
    EXPECT_FALSE(raised_by_stand_in(*ip_address::parse("2001:db8::8")));
    EXPECT_TRUE(raised_by_frame(
        2, message({record(ASKED, 28, bytes(six.octets().begin(), six.octets().end()))},
                   name("a.b"), 0x8180)));
    EXPECT_TRUE(raised_by_stand_in(six));
    EXPECT_FALSE(raised_by_stand_in(six)) << "it has it";
}

// An answer that a gate sees, to the question with id 7 from port 1000 of the client's.
struct seen_answer {
    bool up = false;      // from a client, whose MAC address ends in 0C
    bool came_up = false; // before it went down
    unsigned id = 7;
    unsigned port = 1000;
    const char *asked = "www.EXAMPLE.org";
    int64_t seconds = 9;    // behind the question
    bool flooding = false;  // there were 17,000 further questions of the client's,
    bool disturbed = false; // or of another's
};

TEST(AvcoreDns, OfWhatAGateShowsOnlyAResolversAnswersTeach) {
    const char *unsaid = nullptr;
    const struct {
        const char *what;
        const char *resolvers;
        bool taught;
        seen_answer seen = {};
    } rows[] = {
        {"what was asked", unsaid, true},
        {"another id", unsaid, false, {.id = 8}},
        {"another port", unsaid, false, {.port = 1001}},
        {"another name", unsaid, false, {.asked = "www.example.net"}},
        {"too late", unsaid, false, {.seconds = 10}},
        {"behind too many questions", unsaid, false, {.flooding = true}},
        {"behind those of others", unsaid, true, {.disturbed = true}},
        {"of a client", unsaid, false, {.up = true}},
        {"of a client, on its way down", unsaid, false, {.came_up = true}},
        {"of a resolver", "'192.0.2.7', '192.0.2.5'", true},
        {"of another", "'192.0.2.7'", false},
        {"where nobody may", "", false},
        {"of a client without its MAC", "'192.0.2.5'", false, {.up = true}},
        {"of a client with another's", "'192.0.2.5 02:00:00:00:00:0D'", false, {.up = true}},
        {"of a resolver client", "'192.0.2.5 02:00:00:00:00:0c'", true, {.up = true}},
        {"its way down", "'192.0.2.5 02:00:00:00:00:0C'", false, {.came_up = true}},
    };
    for (const auto &row : rows) {
        const seen_answer &seen = row.seen;
        const config settings = parse_config(
            std::string("dpi = false\n[names]\n") +
                (row.resolvers ? std::string("resolvers = [") + row.resolvers + "]" : ""),
            "f");
        frame_builder builder(settings, "");
        const auto pass = [&](bool of_first, bool up, const octets &datagram, bool question,
                              int64_t seconds, bool gate) {
            const ipv4_words to_client = {0xC0000205, 0x0A01000C};
            const octets frame =
                ethernet(0x0800, ipv4(17, datagram, question ? ipv4_words() : to_client), of_first);
            gate_copy copy = {};
            copy.direction = up ? GATE_UP : GATE_DOWN;
            copy.came_up = seen.came_up;
            return builder.build({frame, seconds * 1'000'000, {}, gate ? &copy : nullptr});
        };
        const auto ask = [&](unsigned id, bool of_first) {
            pass(of_first, true, udp(1000, 53, message({}, name("www.example.org"), 0x0100, 1, id)),
                 true, 0, true);
        };
        ask(7, true);
        for (unsigned id = 100; (seen.flooding || seen.disturbed) && id < 17'100; ++id)
            ask(id, seen.flooding);
        const octets answer =
            udp(53, seen.port,
                message({address("192.0.2.9", ASKED)}, name(seen.asked), 0x8180, 1, seen.id));
        const auto come = [&](bool gate) {
            return pass(seen.up, seen.up, answer, false, seen.seconds, gate)
                ->lesson.answer.findings.size();
        };
        EXPECT_EQ(come(true), row.taught) << row.what;
        EXPECT_EQ(builder.counts().answers_refused, !row.taught && !seen.came_up) << row.what;
        EXPECT_EQ(builder.take_remark().empty(), row.taught || seen.came_up) << row.what;
        come(true);
        EXPECT_EQ(builder.take_remark(), "") << "said once";
        EXPECT_EQ(come(false), 1u) << row.what << ", in a capture";
    }
}

// Of the client whose MAC address frames have.
bytes dhcp_request(const bytes &options, char op = 1, char last_of_mac = 12) {
    return bytes{op, 1, 6} + bytes(25, '\0') + bytes("\2\0\0\0\0", 5) + last_of_mac +
           bytes(202, '\0') + "\x63\x82\x53\x63" + options;
}

TEST(AvcoreDhcp, ClientsNameThemselvesAndNobodyElse) {
    const bytes type("\x35\1\1", 3);
    const bytes laptop = "\x0C\6laptop";
    const bytes end = "\xFF";
    const struct {
        const char *what;
        bytes message;
        std::string name;
    } rows[] = {
        {"a name", dhcp_request(type + laptop + end), "laptop"},
        {"behind padding, without an end", dhcp_request(bytes(3, '\0') + laptop), "laptop"},
        {"with a NUL behind it", dhcp_request(bytes("\x0C\3pc\0", 5) + end), "pc"},
        {"behind the end", dhcp_request(end + laptop), ""},
        {"in another option", dhcp_request("\x0F\x08" + laptop + end), ""},
        {"cut", dhcp_request(type + "\x0C\7laptop"), ""},
        {"without a length", dhcp_request(type + "\x0C"), ""},
        {"a control character", dhcp_request("\x0C\3a\nb" + end), ""},
        {"a NUL inside", dhcp_request(bytes("\x0C\3a\0b", 5) + end), ""},
        {"empty", dhcp_request(bytes("\x0C\0", 2) + end), ""},
        {"a reply", dhcp_request(laptop + end, 2), ""},
        {"another's", dhcp_request(laptop + end, 1, 13), ""},
        {"no cookie", dhcp_request(laptop + end).replace(236, 1, "x"), ""},
        {"an end before the options", dhcp_request({}), ""},
        {"an end before the cookie", dhcp_request({}).substr(0, 239), ""},
    };
    const mac_address client = {2, 0, 0, 0, 0, 12};
    const config settings = parse_config("dpi = false", "f");
    for (const auto &row : rows) {
        frame_builder builder(settings, "");
        builder.build({ethernet(0x0800, ipv4(17, udp(68, 67, row.message))), 0, {}, nullptr});
        const std::string *name = builder.client_names().find(client);
        EXPECT_EQ(name ? *name : "", row.name) << row.what;
    }
    client_name_table names(2);
    const mac_address other = {2, 0, 0, 0, 0, 13};
    names.learn(client, "old");
    names.learn(other, "other");
    names.learn(client, "new");
    names.learn({2, 0, 0, 0, 0, 14}, "third");
    ASSERT_NE(names.find(client), nullptr);
    EXPECT_EQ(*names.find(client), "new");
    EXPECT_EQ(names.find(other), nullptr) << "heard longest ago";
}

TEST(AvcoreHandshakes, OnlyAServerThatGoesOnTakesOne) {
    const bytes tcp = bytes("\0\0\0\0\0\0\0\0\0\0\0\0\x50\0\0\0\0\0\0\0", 20);
    const struct {
        handshake shown;
        bytes payload;
        bool taken;
    } rows[] = {
        {handshake::http, "HTTP/1.0 404", true},
        {handshake::http, "SSH-2.0", false},
        {handshake::tls, bytes("\x16\3\3\0\4\2", 6), true},
        {handshake::tls, bytes("\x16\3\3\0\4\1", 6), false}, // a ClientHello
        {handshake::tls, bytes("\x16\3\3\0\4", 5), false},   // cut
        {handshake::tls, bytes("\x15\3\3\0\2\2", 6), false}, // an alert
        {handshake::quic, bytes("\xC0\0\0\0\1", 5), true},   // version 1, Initial
        {handshake::quic, bytes("\xF0\0\0\0\1", 5), false},  // Retry
        {handshake::quic, "\xC0\x6B\x33\x43\xCF", false},    // the same in version 2
        {handshake::quic, "\xD0\x6B\x33\x43\xCF", true},
        {handshake::quic, bytes("\xC0\0\0\0\0", 5), false}, // version negotiation
        {handshake::quic, bytes("\x40\0\0\0\1", 5), false}, // short header
        {handshake::none, "HTTP/1.0 404", false},
    };
    for (const auto &row : rows) {
        const bool udp = row.shown == handshake::quic;
        const bytes packet = bytes("\x45\0\0\0\0\0\0\0\x40", 9) + (udp ? '\x11' : '\6') +
                             bytes(10, '\0') + (udp ? bytes(4, '\0') + u16(13) + u16(0) : tcp) +
                             row.payload;
        const std::span all(reinterpret_cast<const uint8_t *>(packet.data()), packet.size());
        EXPECT_EQ(takes_handshake(row.shown, all), row.taken) << row.payload;
        EXPECT_FALSE(takes_handshake(row.shown, all.first(all.size() - row.payload.size())));
    }
    EXPECT_EQ(flow_name_in("WWW.example.org.:8080").value_or(""), "www.example.org");
    for (const bytes &none : {bytes("192.0.2.1:80"), bytes("[2001:db8::1]"), bytes("a\nb.example"),
                              bytes("fe80::1"), bytes("Cover.defo.ie"), bytes()})
        EXPECT_FALSE(flow_name_in(none)) << none;
}

TEST(AvcoreHandshakes, AFlowIsCalledAfterTheHostThatItsServerTook) {
    const config settings = parse_config("rule=[{network='10.2.0.0/16',filter_type=['url']}]", "f");
    frame_builder builder(settings, "");
    const bytes ok = "HTTP/1.1 200 OK\r\n\r\n";
    const bytes longest = bytes(60, 'a') + '.' + bytes(60, 'b') + ".example";
    const bytes server_hello("\x16\3\3\0\4\2\0\0\0", 9);
    const octets ech = be16(0xFE0D) + be16(4) + octets(4, 9); // in the hellos of all rows of TLS
    const bytes tls = "HTTP Protocol over TLS SSL";
    const struct {
        bytes host, answer, told, own; // told to the daemon, the flow's own name
        uint32_t client = 0x0A01000C;
    } rows[] = {
        {"Shop.example.:8080", ok, "shop.example", "shop.example"},
        {longest, ok, longest.substr(longest.size() - 63), longest.substr(longest.size() - 63)},
        {"www.youtube.com", ok, "YouTube", ""},
        {"public.tls-ech.dev", ok, "HTTP", ""},
        {"public.tls-ech.dev", server_hello, tls, ""},
        {"cover.defo.ie", server_hello, tls, ""},
        {"cloudflare-ech.com", server_hello, tls, ""},
        {"ech-public.atmeta.com", server_hello, tls, ""},
        {"shop.example", server_hello, "shop.example", "shop.example"},
        {"shop.example", "SSH-2.0", "HTTP", ""},
        {"shop.example", http_redirect_to(1), "HTTP", "shop.example"},
        {"shop.example", ok, "HTTP", "shop.example", 0x0A02000C}, // where URLs are filtered
    };
    unsigned port = 1000;
    for (const auto &row : rows) {
        const auto build = [&](const octets &segment, bool up) {
            const ipv4_words words = {up ? row.client : 1, up ? 1 : row.client};
            captured_frame captured;
            const octets frame = ethernet(0x0800, ipv4(6, segment, words));
            captured.bytes = frame;
            return *builder.build(captured);
        };
        const octets hello = client_hello_for(row.host, ech);
        const bytes record =
            "\x16\3\1" + u16(unsigned(hello.size())) + bytes(hello.begin(), hello.end());
        const bytes get = "GET / HTTP/1.1\r\nHost: " + row.host + "\r\n\r\n";
        const bool over_tls = row.answer == server_hello;
        const unsigned to = over_tls ? 443 : 80;
        build(tcp(++port, to, over_tls ? record : get), true);
        const auto built = build(tcp(to, port, row.answer), false);
        EXPECT_EQ(built.frame.trailer().dpi_app_name, row.told) << row.host;
        EXPECT_EQ(built.frame.trailer().dpi_app_id != 0, row.told != row.own) << row.host;
        EXPECT_EQ(built.flow.row.own_name, row.own) << row.host << row.answer;
        EXPECT_EQ(built.frame.engine_done, row.answer == ok) << row.host << row.answer;
    }
}

TEST(AvcoreHandshakes, NameTheSameClientsFlowsThatShowNoneAndNobodyElses) {
    const config settings = parse_config("rule=[{network='10.2.0.0/16',filter_type=['url']}]", "f");
    const struct {
        const char *what;
        uint32_t shown_by, client;
        bool in_dns;
        bytes told, domain;
    } rows[] = {
        {"its own", 0x0A01000C, 0x0A01000C, false, "shop.example", ""},
        {"where URLs are filtered", 0x0A02000C, 0x0A02000C, false, "", "shop.example"},
        {"another client's", 0x0A01000C, 0x0A01000D, false, "", ""},
        {"an address that DNS names", 0x0A01000C, 0x0A01000C, true, "", ""},
    };
    constexpr uint32_t server = 0xC0000201;
    for (const auto &row : rows) {
        frame_builder builder(settings, "");
        const auto build = [&](uint8_t protocol, const octets &data, const ipv4_words &words) {
            const octets frame = ethernet(0x0800, ipv4(protocol, data, words));
            return *builder.build({frame, 0, {}, nullptr});
        };
        build(6, tcp(1000, 80, "GET / HTTP/1.1\r\nHost: Shop.example\r\n\r\n"),
              {row.shown_by, server});
        build(6, tcp(80, 1000, "HTTP/1.1 200 OK\r\n\r\n"), {server, row.shown_by});
        const bytes answer = message({address("192.0.2.1", ASKED)}, name("a.example"), 0x8180);
        if (row.in_dns)
            build(17, udp(53, 1000, answer), {0xC0000205, row.client});
        const octets data = udp(1001, 9999, bytes(50, '\xAA'));
        for (int i = 1; i < 12; ++i)
            EXPECT_STREQ(build(17, data, {row.client, server}).frame.trailer().dpi_app_name, "");
        const av_pkt_trailer late = build(17, data, {row.client, server}).frame.trailer();
        EXPECT_EQ(late.dpi_app_name, row.told) << row.what;
        EXPECT_EQ(late.dpi_status == AV_DPI_IDENTIFIED, !row.told.empty()) << row.what;
        EXPECT_EQ(late.kernel_domain, row.domain) << row.what;
    }
}

// A server takes all of these, and nDPI 4.2 finds the host in none.
TEST(AvcoreHandshakes, AClientShowsItsHostHoweverItCutsItsStream) {
    const octets hello = client_hello_for("www.youtube.com");
    const auto record = [](const octets &part) {
        return octets{22, 3, 1} + be16(part.size()) + part;
    };
    const octets tls = record(hello);
    const octets other = client_hello_for("a.example");
    const octets around = client_hello_for("www.youtube.com", be16(9) + be16(other.size()) + other);
    const octets first = record(around.substr(0, around.size() - other.size()));
    const octets get = octets_of("GET / HTTP/1.1\r\nAccept: */*\r\nHost: www.youtube.com\r\n\r\n");
    struct piece {
        uint32_t at;
        octets data;
    };
    const struct {
        const char *what;
        std::vector<piece> pieces;
    } rows[] = {
        {"two records", {{0, record(hello.substr(0, 50)) + record(hello.substr(50))}}},
        {"a hello in the second record", {{0, first}, {uint32_t(first.size()), record(other)}}},
        {"two segments", {{60, tls.substr(60)}, {0, tls.substr(0, 60)}}},
        {"three segments", {{70, tls.substr(70)}, {0, tls.substr(0, 4)}, {4, tls.substr(4, 66)}}},
        {"first data wins", {{40, tls.substr(40)}, {60, octets(9, 'x')}, {0, tls.substr(0, 50)}}},
        {"a keep-alive, and a segment out of the window",
         {{~0u, {9}}, {1u << 30, tls}, {60, tls.substr(60)}, {0, tls.substr(0, 60)}}},
        {"a request out of the window",
         {{1u << 30, octets_of("GET / HTTP/1.1\r\nHost: a.example\r\n\r\n")}, {0, tls}}},
        {"a cut Host", {{0, get.substr(0, 50)}, {50, get.substr(50)}}},
        {"a line before", {{0, octets_of("junk\r\n")}, {6, get}}},
        {"LF alone", {{0, octets_of("GET / HTTP/1.1\nHost : www.youtube.com\n\n")}}},
        {"a URI",
         {{0, octets_of("GET http://a@www.youtube.com/ HTTP/1.1\r\nHost: b.example\r\n\r\n")}}},
    };
    const config settings;
    frame_builder builder(settings, "");
    unsigned port = 1000;
    for (const auto &row : rows) {
        const unsigned to = row.pieces.back().data[0] < 0x20 ? 443 : 80;
        const auto build = [&](uint32_t at, const octets &data, uint8_t flags) {
            const octets segment =
                tcp(port, to, bytes(data.begin(), data.end()), flags, 0xFFFFFFF0 + at);
            const octets frame = ethernet(0x0800, ipv4(6, segment));
            return builder.build({frame, 0, {}, nullptr})->frame;
        };
        ++port;
        fed_frame frame = build(~0u, {}, 2);
        for (const piece &one : row.pieces) {
            const av_pkt_trailer before = frame.trailer();
            EXPECT_TRUE(before.dpi_status == AV_DPI_MORE_PACKETS ||
                        before.kernel_domain == std::string_view("a.example"))
                << row.what;
            EXPECT_FALSE(frame.engine_done) << row.what;
            frame = build(one.at, one.data, 0x18);
        }
        const av_pkt_trailer trailer = frame.trailer();
        EXPECT_STREQ(trailer.dpi_app_name, "YouTube") << row.what;
        EXPECT_STREQ(trailer.kernel_domain, "www.youtube.com") << row.what;
    }
}

// Of 16-bit words, RFC 1071.
TEST(AvcoreHandshakes, WhatNoHostTakesIsNotShownToTheEngine) {
    const octets hello = client_hello_for("www.youtube.com");
    const octets record = octets{22, 3, 1} + be16(hello.size()) + hello;
    const octets junk = tcp(1000, 443, "junk");
    const config settings;
    for (const bool six : {false, true}) {
        frame_builder builder(settings, "");
        const octets sides = six ? octets(15, 0x20) + octets(17, 0x21) // of IPv6
                                 : be32(ipv4_words().src) + be32(ipv4_words().dst);
        const auto pseudo = [&](const octets &segment) {
            return sides + be16(6) + be16(segment.size());
        };
        const auto packet = [&](octets segment, uint16_t checksum, bool harmed = false) {
            segment.replace(16, 2, be16(checksum));
            const octets head = octets{0x60, 0, 0, 0} + be16(segment.size()) + octets{6, 64};
            if (six)
                return ethernet(0x86DD, head + sides + segment);
            octets whole = ipv4(6, segment);
            whole.replace(10, 2, be16(uint16_t(~folded_sum(whole.substr(0, 20)) + harmed)));
            return ethernet(0x0800, whole);
        };
        const auto build = [&](const octets &frame, uint16_t segment_size = 0) {
            gate_copy copy = {};
            copy.segment_size = segment_size;
            return builder.build({frame, 0, {}, &copy})->frame;
        };
        const auto right = [&](const octets &segment) {
            return uint16_t(~folded_sum(pseudo(segment) + segment));
        };
        const octets damaged = packet(junk, uint16_t(right(junk) + 1));
        for (unsigned i = 0; i < 40; ++i)
            ASSERT_EQ(build(damaged).number_in_flow, 0u);
        EXPECT_TRUE(six || build(packet(junk, right(junk), true)).number_in_flow == 0u);
        const octets shown = tcp(1000, 443, bytes(record.begin(), record.end()));
        const fed_frame named = build(packet(shown, right(shown)));
        EXPECT_STREQ(named.trailer().dpi_app_name, "YouTube");
        EXPECT_EQ(named.number_in_flow, 1u);

        // Those that the card is to complete, and those of which it can't be told.
        EXPECT_EQ(build(packet(junk, folded_sum(pseudo(junk)))).number_in_flow, 2u);
        EXPECT_EQ(build(damaged, 1400).number_in_flow, 3u) << "joined";
        EXPECT_EQ(build(damaged.substr(0, damaged.size() - 1)).number_in_flow, 4u) << "cut";
    }
}

class AvcoreDpiEngine : public testing::Test {
protected:
    av_pkt_trailer inspect(uint16_t port, uint16_t to_port, const bytes &payload,
                           int64_t time_us = 0) {
        const bytes packet = bytes("\x45\0", 2) + u16(unsigned(28 + payload.size())) +
                             bytes("\0\0\0\0\x40\x11\0\0\x0A\0\0\2\xC0\0\2\7", 16) + u16(port) +
                             u16(to_port) + u16(unsigned(8 + payload.size())) + u16(0) + payload;
        frame_facts frame;
        frame.ipv4 = true;
        frame.ip_proto = 17;
        frame.sender = {{}, inet_addr("10.0.0.2"), port};
        frame.receiver = {{}, inet_addr("192.0.2.7"), to_port};
        av_pkt_trailer trailer = {};
        engine.inspect(frame, {reinterpret_cast<const uint8_t *>(packet.data()), packet.size()},
                       time_us, trailer);
        return trailer;
    }
    dpi_engine engine{2};
};

TEST_F(AvcoreDpiEngine, NamesFlowsGivesUpAndForgets) {
    const bytes query = u16(7) + u16(0x0100) + u16(1) + u16(0) + u16(0) + u16(0) +
                        name("www.youtube.com") + u16(1) + u16(1);
    const av_pkt_trailer named = inspect(1, 53, query);
    EXPECT_EQ(named.dpi_status, AV_DPI_IDENTIFIED);
    EXPECT_STREQ(named.dpi_app_name, "DNS");
    EXPECT_EQ(named.filter_type, AV_FILTER_DPI);
    EXPECT_EQ(named.kernel_domain[0], '\0');

    for (int i = 1; i < 24; ++i)
        ASSERT_EQ(inspect(2, 9999, bytes(50, '\xAA')).dpi_status, AV_DPI_MORE_PACKETS) << i;
    EXPECT_EQ(inspect(2, 9999, bytes(50, '\xAA')).dpi_status, 3u);
    EXPECT_EQ(inspect(1, 53, query).dpi_status, AV_DPI_IDENTIFIED);

    inspect(3, 9999, "x"); // more flows than it keeps: the one seen longest ago starts anew
    EXPECT_EQ(engine.flows(), 2u);
    EXPECT_EQ(inspect(2, 9999, bytes(50, '\xAA')).dpi_status, AV_DPI_MORE_PACKETS);
    inspect(4, 9999, "x", dpi_engine::MAX_IDLE_US + 1);
    EXPECT_EQ(engine.flows(), 1u);
}

} // namespace
