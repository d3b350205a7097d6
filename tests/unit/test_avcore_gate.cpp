// The gate in the kernel, at one end of a veth pair; frames of the client go into the other. Runs
// as root in namespaces of its own.
#include "avcore/flows/frame_builder.h"
#include "avcore/gate/gate.h"
#include "avcore/gate/pins.h"
#include "avcore/gate/places.h"
#include "avcore/gate/ring.h"
#include "avcore/gate/traffic_control.h"
#include "shared/unique_fd.h"
#include "support/foreign_program.h"
#include "support/frames.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_packet.h>
#include <linux/nl80211.h>
#include <map>
#include <net/if.h>
#include <poll.h>
#include <random>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace avcore;

constexpr char PINS[] = "/run/jorn/gate/";

bool run(const char *command) {
    return system(command) == 0;
}

octets ipv6(uint8_t next, const octets &rest) {
    const octets side = octets{0x20, 1, 0x0D, 0xB8} + octets(11, 0) + octets{1};
    return ethernet(0x86DD, octets{0x60, 0, 0, 0} + be16(rest.size()) + octets{next, 64} + side +
                                side + rest);
}

gate_verdict allowance(uint32_t generation) {
    gate_verdict verdict = {};
    verdict.generation = generation;
    verdict.action = GATE_PASS;
    return verdict;
}

gate_verdict denial(uint8_t flags, uint32_t generation) {
    gate_verdict verdict = allowance(generation);
    verdict.action = GATE_DENY;
    verdict.flags = flags;
    return verdict;
}

using attached_by = std::map<std::string, std::vector<attach_way>>;

// Those that this kernel has.
std::vector<attach_way> ways_here() {
    if (way_to_attach(if_nametoindex("lo"), std::nullopt) == attach_way::clsact)
        return {attach_way::clsact};
    return {attach_way::tcx, attach_way::clsact};
}

octets summed(octets packet) {
    return packet.replace(10, 2, be16(0xFFFFu - folded_sum(packet.substr(0, 20))));
}

unique_fd packet_socket(const char *interface) {
    unique_fd fd(socket(AF_PACKET, SOCK_RAW, 0));
    sockaddr_ll at = {};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(0x0003);
    at.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&at), sizeof at), 0) << strerror(errno);
    return fd;
}

class AvcoreGate : public testing::Test {
protected:
    AvcoreGate() {
        EXPECT_TRUE(run("sysctl -qw net.ipv6.conf.default.disable_ipv6=1 && "
                        "ip link add gw0 mtu 3000 type veth peer name c0 mtu 3000 && "
                        "ip link add gw1 type veth && "
                        "for i in gw0 c0; do ip link set $i arp off up; done"));
        fd_ = packet_socket("c0");
    }
    ~AvcoreGate() override {
        tear_down_gate(PINS);
        run("ip link del gw0; ip link del gw1; ip link del br0 2>/dev/null");
    }

    static void send_frame(int fd, const octets &frame) {
        EXPECT_EQ(send(fd, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
    }
    void send_frame(const octets &frame) const { send_frame(fd_.get(), frame); }
    // What became of a frame: the counts of packets that changed.
    std::vector<int> fate(const gate &at, const octets &frame) const {
        return fate(at, frame, fd_.get());
    }
    static std::vector<int> fate(const gate &at, const octets &frame, int fd) {
        const gate_counts before = at.counts();
        send_frame(fd, frame);
        std::vector<int> changed;
        for (int tries = 0; tries < 1000 && changed.empty(); ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const gate_counts after = at.counts();
            for (int i = 0; i < GATE_COUNT_RESETS; ++i)
                if (after[static_cast<size_t>(i)] != before[static_cast<size_t>(i)])
                    changed.push_back(i);
        }
        return changed;
    }
    // The next frame that comes in there, but for those to groups.
    static octets answer(int fd) {
        octets frame(2000, 0);
        sockaddr_ll from = {};
        socklen_t size = sizeof from;
        pollfd readable = {fd, POLLIN, 0};
        while (poll(&readable, 1, 2000) > 0) {
            const ssize_t length = recvfrom(fd, frame.data(), frame.size(), 0,
                                            reinterpret_cast<sockaddr *>(&from), &size);
            if (from.sll_pkttype != PACKET_OUTGOING && (frame[0] & 1) == 0)
                return frame.substr(0, static_cast<size_t>(length));
        }
        return {};
    }

    unique_fd fd_;
};

// What the model of the gate doesn't make.
TEST_F(AvcoreGate, TellsWhatItJudgesFromWhatPassesAndWhatIsBroken) {
    const octets data = udp(1000, 2000, "x");
    const octets tag = octets{0, 1, 0x81, 0};
    const octets long_options = octets{17, 255, 1, 4} + octets(2044, 0);
    const octets plain = octets{0, 2, 8, 0} + ipv4(17, data);
    const std::vector<int> undecided = {GATE_COUNT_UNDECIDED};
    const std::vector<int> always = {GATE_COUNT_ALWAYS};
    const std::vector<int> fragment = {GATE_COUNT_FRAGMENT};
    const std::vector<int> malformed = {GATE_COUNT_MALFORMED};
    const struct {
        const char *what;
        octets frame;
        std::vector<int> fate;
    } rows[] = {
        {"UDP", ethernet(0x0800, ipv4(17, data)), undecided},
        {"a fourth tag", ethernet(0x8100, tag + tag + tag + plain), {GATE_COUNT_TAGS}},
        {"fragmentation needed", ethernet(0x0800, ipv4(1, octets{3, 4, 0, 0})), always},
        {"ICMPv6 without a meaning", ipv6(58, octets{200, 0, 0, 0}), undecided},
        {"IPv4's later fragment", ethernet(0x0800, ipv4(6, {1, 2, 3}, {.fragment = 1})), fragment},
        {"a first fragment without flags",
         ethernet(0x0800, ipv4(6, tcp(1, 2).substr(0, 8), {.fragment = 0x2000})), malformed},
        {"a short TCP header", ethernet(0x0800, ipv4(6, tcp(1, 2).replace(12, 1, 1, 0x40))),
         malformed},
        {"a header beyond the packet", ipv6(60, octets{17, 9, 1, 4, 0, 0, 0, 0}), malformed},
        {"headers longer than a copy", ipv6(60, long_options + data), {GATE_COUNT_DEEP_HEADERS}},
    };
    gate at(PINS, {"gw0"});
    EXPECT_EQ(fate(at, rows[0].frame), std::vector<int>{GATE_COUNT_NOBODY});
    at.set_rules({.fail_closed = true});
    EXPECT_EQ(fate(at, rows[0].frame), std::vector<int>{GATE_COUNT_SHUT});
    at.beat();
    for (const auto &row : rows)
        EXPECT_EQ(fate(at, row.frame), row.fate) << row.what;
    gate_copy_seen copy;
    ASSERT_TRUE(at.take(copy));
    EXPECT_EQ(octets(copy.frame.begin(), copy.frame.end()), rows[0].frame);
    EXPECT_EQ(ntohs(copy.head.flow.server_port_be), 2000);

    at.set_rules({.fail_closed = true, .pass_tags = true, .drop_fragments = true});
    const std::map<std::vector<int>, int> otherwise = {{fragment, GATE_COUNT_CUT},
                                                       {{GATE_COUNT_TAGS}, GATE_COUNT_NOT_IP}};
    for (const auto &row : rows) {
        if (const auto other = otherwise.find(row.fate); other != otherwise.end()) {
            EXPECT_EQ(fate(at, row.frame), std::vector<int>{other->second}) << row.what;
        }
    }
}

TEST_F(AvcoreGate, WhatItHasTakenComesBackByAWayThatIsRenewed) {
    gate at(PINS, {"gw0"});
    at.open_way_back();
    at.set_rules({.fail_closed = true, .hold_undecided = true, .holds_per_second = 500});
    at.beat();
    ASSERT_TRUE(run("for i in gw0 c0; do ip link set $i mtu 20000; done"));
    const octets longest =
        ethernet(0x0800, ipv4(17, udp(1002, 2000, std::string(GATE_BACK_MAX - 42, 'x'))));
    EXPECT_EQ(fate(at, longest + octets{0}), std::vector<int>{GATE_COUNT_HELD_LONG});
    EXPECT_EQ(fate(at, longest), std::vector<int>{GATE_COUNT_HELD});
    gate_copy_seen copy = {};
    while (copy.head.length != longest.size())
        ASSERT_TRUE(at.take(copy));
    EXPECT_EQ(octets(copy.frame.begin(), copy.frame.end()), longest);
    const gate_copy &head = copy.head;
    EXPECT_EQ((std::array{head.network, head.transport, head.payload, head.end}),
              (std::array<uint16_t, 4>{14, 34, 42, GATE_BACK_MAX}));
    const auto put_back = [&] {
        return at.put_back(head.if_index, {copy.frame.begin(), copy.frame.end()});
    };
    const auto decided_behind_it = [&] {
        const gate_counts before = at.counts();
        EXPECT_TRUE(put_back());
        for (int i = 0; i < 1000 && at.counts()[GATE_COUNT_BACK] == before[GATE_COUNT_BACK]; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return at.counts()[GATE_COUNT_DECIDED] - before[GATE_COUNT_DECIDED];
    };
    ASSERT_TRUE(at.decide(head.flow, allowance(at.generation())));
    EXPECT_EQ(decided_behind_it(), 1u);
    for (int i = 0; i < 1000 && at.has_taken(head.flow); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(at.has_taken(head.flow));

    EXPECT_FALSE(at.renew_way_back());
    for (const char *away : {"ip link set jorn-back0 down", "ip link del jorn-back0"}) {
        ASSERT_TRUE(run(away));
        EXPECT_FALSE(put_back());
        EXPECT_TRUE(at.renew_way_back());
        EXPECT_EQ(decided_behind_it(), 1u) << away;
    }
}

// Whoever finds a packet that the two read differently has a flow's packets decided by another's.
TEST_F(AvcoreGate, ReadsFramesAsTheDaemonDoes) {
    gate at(PINS, {"gw0"});
    at.set_rules({.copies_per_second = UINT32_MAX});
    std::minstd_rand random(1); // NOLINT: the same frames each time
    const auto one_of = [&](auto... choices) {
        const std::array all = {choices...};
        return all[random() % all.size()];
    };
    const config settings;
    frame_builder builder(settings, "");
    int compared = 0;
    for (int i = 0; i < 4000; ++i) {
        octets rest = one_of(tcp(1000, 443, "abc"), udp(1000, 443, "abc"), octets(40, 0));
        uint8_t next = one_of(uint8_t{6}, uint8_t{17}, uint8_t{1}, uint8_t{58}, uint8_t{132},
                              uint8_t{47}, uint8_t{136});
        if (next == 58 || next == 1)
            rest[0] = static_cast<uint8_t>(random());
        octets frame;
        if (random() % 2) {
            frame = ipv4(next, rest,
                         {.fragment = one_of(uint16_t{0}, uint16_t{0x2000}, uint16_t{0x4000})});
        } else {
            for (unsigned headers = random() % 4; headers > 0; --headers) {
                const uint8_t kind =
                    one_of(uint8_t{0}, uint8_t{43}, uint8_t{44}, uint8_t{51}, uint8_t{60});
                rest = octets{next, 0, 0, one_of(uint8_t{0}, uint8_t{1}), 0, 0, 0, 1} + rest;
                next = kind;
            }
            frame = ipv6(next, rest).substr(14);
        }
        frame = ethernet(frame[0] >> 4 == 4 ? 0x0800 : 0x86DD, frame);
        for (unsigned tags = random() % 8 / 3; tags > 0; --tags)
            frame.insert(12, one_of(octets{0x81, 0}, octets{0x88, 0xA8}) +
                                 octets{0, one_of(uint8_t{0}, uint8_t{5})});
        if (random() % 2)
            frame[14 + random() % (frame.size() - 14)] = static_cast<uint8_t>(random());
        at.beat(); // an emulated machine takes its time
        send_frame(frame);
        gate_copy_seen copy;
        while (at.take(copy)) {
            const auto built = builder.build(
                {.bytes = copy.frame, .time_us = i, .captured_on = "gw0", .copy = &copy.head});
            ASSERT_TRUE(built);
            const flow_row &row = built->flow.row;
            const gate_flow &flow = copy.head.flow;
            const endpoint &client = built->flow.from_client ? row.client : row.server;
            const endpoint &server = built->flow.from_client ? row.server : row.client;
            const bool first_of_tcp = flow.proto == 6 && client.port == 0 && server.port == 0;
            EXPECT_EQ(flow.proto, row.ip_proto);
            EXPECT_TRUE(std::ranges::equal(flow.client, client.address.octets()));
            EXPECT_TRUE(std::ranges::equal(flow.server, server.address.octets()));
            if (!first_of_tcp) {
                EXPECT_EQ(ntohs(flow.client_port_be), client.port);
                EXPECT_EQ(ntohs(flow.server_port_be), server.port);
            }
            ++compared;
        }
    }
    EXPECT_GT(compared, 1000);
}

// Of a frame of more than a page that is said to have short headers the kernel keeps only
// Ethernet's where programs see it.
TEST_F(AvcoreGate, MarksWhatItSeesInPlaceAndWhatItDoesNot) {
    ASSERT_TRUE(run("ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up && "
                    "for i in gw0 gw1 c0 veth0; do ip link set $i mtu 9000 up; done && "
                    "for i in gw0 gw1; do ip link set $i master br0; done && "
                    "until ! grep -v 3 /sys/class/net/gw?/brport/state; do sleep 0.01; done"));
    const unique_fd beyond = packet_socket("veth0");
    const int heads = 1;
    ASSERT_EQ(setsockopt(fd_.get(), SOL_PACKET, PACKET_VNET_HDR, &heads, sizeof heads), 0);
    const octets head = octets(2, 0) + octets{14, 0} + octets(6, 0); // a virtio_net_hdr
    gate at(PINS, {"gw0"});
    at.set_rules({.copies_per_second = 1000});
    at.beat();
    for (const unsigned size : {10u, 4200u}) {
        const octets data = udp(size, 443, std::string(size, 'x'));
        const octets plain = ipv4(17, data);
        octets voice = plain;
        voice[1] = 46 << 2;
        octets labelled = ipv6(17, data);
        labelled[15] = 0x0B;
        octets voice6 = labelled;
        voice6.replace(14, 2, {0x60 | 46 >> 2, (46 << 6 & 0xFF) | 0x0B});
        const struct {
            octets frame;
            octets marked;
        } rows[] = {{ethernet(0x0800, summed(plain)), ethernet(0x0800, summed(voice))},
                    {labelled, voice6}};
        for (const auto &[frame, marked] : rows) {
            EXPECT_EQ(fate(at, head + frame), std::vector<int>{GATE_COUNT_UNDECIDED});
            EXPECT_EQ(answer(beyond.get()).substr(0, 60), frame.substr(0, 60));
            gate_copy_seen copy;
            ASSERT_TRUE(at.take(copy));
            gate_verdict marks = allowance(at.generation());
            marks.flags = GATE_SET_DSCP;
            marks.dscp = 46;
            ASSERT_TRUE(at.decide(copy.head.flow, marks));
            send_frame(head + frame);
            EXPECT_EQ(answer(beyond.get()).substr(0, 60), marked.substr(0, 60));
        }
    }
}

TEST_F(AvcoreGate, CopiesSayHowDatagramsWereJoined) {
    ASSERT_TRUE(run("ip addr add 10.1.0.12/24 dev c0"));
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in server = {AF_INET, htons(443), {ip("10.1.0.5")}, {}};
    gate at(PINS, {"gw0"});
    at.beat();
    for (const int size : {0, 1200}) {
        const octets data(size == 0 ? 1200 : 6000, 'x');
        setsockopt(sender, IPPROTO_UDP, 103 /* UDP_SEGMENT */, &size, sizeof size);
        sendto(sender, data.data(), data.size(), 0, reinterpret_cast<const sockaddr *>(&server),
               sizeof server);
        pollfd readable = {at.fd(), POLLIN, 0};
        gate_copy_seen copy;
        ASSERT_TRUE(poll(&readable, 1, 2000) == 1 && at.take(copy));
        const bool joined = copy.head.length > 1242; // before Linux 5.11 a veth pair joins none
        EXPECT_EQ(copy.head.segment_size, joined ? 1200 : 0);
        EXPECT_EQ(copy.frame.size(), joined ? GATE_JOINED_MAX : 1242u);
    }
    close(sender);
}

TEST_F(AvcoreGate, FlowsThatMeetAtAPlaceKeepTheirVerdictsAndCounts) {
    gate at(PINS, {"gw0"});
    at.beat();
    const auto sent = [](unsigned port) { return ethernet(0x0800, ipv4(17, udp(port, 443, "x"))); };
    fate(at, sent(1));
    gate_copy_seen copy;
    ASSERT_TRUE(at.take(copy));
    const gate_flow allowed = copy.head.flow;
    gate_flow denied = allowed;
    for (unsigned port = 2; gate_place(&denied) != gate_place(&allowed) || port == 2; ++port)
        denied.client_port_be = htons(static_cast<uint16_t>(port));
    ASSERT_TRUE(at.decide(allowed, allowance(at.generation())) &&
                at.decide(denied, denial(0, at.generation())));
    for (int i = 1; i <= 5; ++i) {
        EXPECT_EQ(fate(at, sent(1)), std::vector<int>{GATE_COUNT_DECIDED});
        EXPECT_EQ(fate(at, sent(ntohs(denied.client_port_be))),
                  std::vector<int>{GATE_COUNT_DENIED});
        EXPECT_EQ(at.counter_of(allowed).packets[GATE_UP], static_cast<uint64_t>(i) + 1);
        EXPECT_EQ(at.counter_of(denied).denied, static_cast<uint64_t>(i));
    }
    EXPECT_EQ(at.counter_of(denied).packets[GATE_UP] + at.counter_of(allowed).denied, 0u);
}

octets segment(bool up, uint8_t flags) {
    const ipv4_words sides;
    return up ? ethernet(0x0800, ipv4(6, tcp(1000, 443, "", flags)))
              : ethernet(0x0800,
                         ipv4(6, tcp(443, 1000, "", flags), {.src = sides.dst, .dst = sides.src}),
                         false);
}

// Of the segments above.
gate_flow flow_of_segments() {
    const octets mapped = octets(10, 0) + octets(2, 0xFF);
    const octets client = mapped + be32(ipv4_words().src);
    const octets server = mapped + be32(ipv4_words().dst);
    gate_flow flow = {};
    std::ranges::copy(client, flow.client);
    std::ranges::copy(server, flow.server);
    flow.client_port_be = htons(1000);
    flow.server_port_be = htons(443);
    flow.proto = 6;
    return flow;
}

// This thread runs on it for now, and what it sends is counted there.
class on_processor {
public:
    explicit on_processor(size_t processor) {
        sched_getaffinity(0, sizeof before_, &before_);
        cpu_set_t own;
        CPU_ZERO(&own);
        CPU_SET(processor, &own);
        sched_setaffinity(0, sizeof own, &own); // where there is one alone, so be it
    }
    on_processor(const on_processor &) = delete;
    ~on_processor() { sched_setaffinity(0, sizeof before_, &before_); }

private:
    cpu_set_t before_ = {};
};

int64_t wall_us() {
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

TEST_F(AvcoreGate, AddressesAndPortsThatComeAgainAreAnotherFlow) {
    constexpr uint8_t fin = 0x11, syn = 0x02, syn_ack = 0x12, rst = 0x14, ack = 0x10;
    constexpr uint8_t both = GATE_FIN_UP | GATE_FIN_DOWN;
    const struct {
        const char *what;
        bool up;
        uint8_t flags;
        unsigned flow; // counted up
        uint64_t packets;
        uint8_t ended;
    } rows[] = {
        {"asked for by the server", false, syn, 1, 1, 0},
        {"answered", true, syn_ack, 1, 2, 0},
        {"asked for from the client, too", true, syn, 1, 3, 0},
        {"ended by one side", true, fin, 1, 4, GATE_FIN_UP},
        {"and by the other", false, fin, 1, 5, both},
        {"which is heard", true, ack, 1, 6, both},
        {"the server asks", false, syn, 1, 7, both},
        {"the client asks", true, syn, 2, 1, 0},
        {"once more", true, syn, 2, 2, 0},
        {"it is refused", false, rst, 2, 3, GATE_RST},
        {"and tries again", true, syn, 3, 1, 0},
        {"half ended", false, fin, 3, 2, GATE_FIN_DOWN},
        {"the client has forgotten it", true, syn, 4, 1, 0},
    };
    const on_processor here(0); // what another one has at hand would be the new flow's
    gate at(PINS, {"gw0"});
    at.beat();
    const unique_fd beyond = packet_socket("gw0"); // what is sent there goes down
    const gate_flow key = flow_of_segments();
    const int64_t began_us = wall_us() - 100'000; // ticks, and what tells two clocks apart
    gate_flow_state last;
    gate_counter sent = {};
    unsigned flows = 0;
    const auto sum = [](const gate_counter &of) { return of.packets[0] + of.packets[1]; };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        at.beat();
        const octets frame = segment(row.up, row.flags);
        fate(at, frame, row.up ? fd_.get() : beyond.get());
        sent.packets[row.up ? GATE_UP : GATE_DOWN]++;
        const std::optional<gate_flow_state> now = at.flow_of(key);
        ASSERT_TRUE(now);
        flows += now->begun_ns != last.begun_ns;
        EXPECT_EQ(flows, row.flow);
        EXPECT_EQ(sum(now->counts), row.packets);
        EXPECT_EQ(sum(now->counts) + sum(now->before), sum(sent));
        EXPECT_EQ(at.counter_of(key).bytes[GATE_UP], sent.packets[GATE_UP] * frame.size());
        EXPECT_EQ(now->ended, row.ended);
        EXPECT_TRUE(began_us < now->begun_us && now->begun_us <= now->last_us &&
                    now->last_us <= wall_us() + 100'000);
        EXPECT_EQ(now->mac, (std::array<uint8_t, 6>{2, 0, 0, 0, 0, 12}));
        EXPECT_EQ(now->if_index, if_nametoindex("gw0"));
        last = *now;
    }
    ASSERT_TRUE(at.decide(key, denial(0, at.generation())));
    EXPECT_EQ(fate(at, segment(true, fin)), std::vector<int>{GATE_COUNT_DENIED});
    EXPECT_EQ(at.flow_of(key)->ended, 0) << "what is dropped ends nothing";

    const std::string pin = pin_of(PINS, "flows");
    for (const uint64_t idle_s : {299U, 301U}) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // a tick
        gate_flow_record record = {};
        ASSERT_TRUE(read_pinned(pin, &key, &record));
        record.last_ns -= idle_s * 1'000'000'000;
        ASSERT_TRUE(write_pinned(pin, &key, &record));
        fate(at, segment(true, ack));
        EXPECT_EQ(at.flow_of(key)->begun_ns != last.begun_ns, idle_s == 301);
    }
    EXPECT_EQ(at.flow_of(key)->counts.denied, 1u);
    EXPECT_EQ(at.counter_of(key).denied, 3u);
}

TEST_F(AvcoreGate, NothingIsLostOrCountedTwiceWhereProcessorsBeginAFlowAtOnce) {
    gate at(PINS, {"gw0"});
    at.set_rules({.copies_per_second = 1});
    at.beat();
    std::atomic<int> running = 2;
    const auto connect_again = [&](size_t processor) {
        const on_processor here(processor);
        const unique_fd fd = packet_socket("c0");
        for (int i = 0; i < 3000; ++i)
            for (const uint8_t flags : octets{0x02, 0x10, 0x11})
                send_frame(fd.get(), segment(true, flags));
        --running;
    };
    std::thread one(connect_again, 0);
    std::thread other(connect_again, 1);
    const gate_flow key = flow_of_segments();
    uint64_t last = 0;
    uint64_t seen = 0;
    uint32_t cursor = 0;
    const auto look = [&](const gate_flow &, const gate_flow_state &state) {
        const uint64_t all = state.before.packets[GATE_UP] + state.counts.packets[GATE_UP];
        EXPECT_GE(all, last);
        last = all;
        ++seen;
    };
    while (running > 0) {
        at.beat();
        if (const auto state = at.flow_of(key))
            look(key, *state);
        at.walk_flows(cursor, 1, look);
    }
    one.join();
    other.join();
    EXPECT_GT(seen, 10u);
    EXPECT_EQ(at.counter_of(key).packets[GATE_UP], at.counts()[GATE_COUNT_UNDECIDED]);
    EXPECT_GT(at.flow_of(key)->before.packets[GATE_UP], 1000u);
}

TEST_F(AvcoreGate, CountsWhatPassesWithoutABeatUntilItIsLeftInOrder) {
    gate at(PINS, {"gw0"});
    at.set_rules({.copies_per_second = 1000});
    const auto packets = [&] {
        EXPECT_EQ(fate(at, segment(true, 0x11)), std::vector<int>{GATE_COUNT_NOBODY});
        return at.counter_of(flow_of_segments()).packets[GATE_UP];
    };
    EXPECT_EQ(packets(), 0u);
    at.ask_although_unattended(true);
    EXPECT_EQ(packets(), 1u);
    at.ask_although_unattended(false);
    EXPECT_EQ(packets(), 2u);
    EXPECT_EQ(at.counts()[GATE_COUNT_COPIES], 1u);
    EXPECT_EQ(at.flow_of(flow_of_segments())->ended, GATE_FIN_UP);
    at.leave();
    EXPECT_EQ(packets(), 2u);
}

TEST_F(AvcoreGate, AWalkFindsAllFlowsAndWhatTheMapDroppedIsCounted) {
    gate at(PINS, {"gw0"});
    at.set_rules({.copies_per_second = 1});
    const auto send_flows = [&](unsigned from, unsigned to) {
        const uint64_t before = at.counts()[GATE_COUNT_UNDECIDED];
        for (unsigned i = from; i < to; ++i) {
            if (i % 1000 == 0)
                at.beat();
            send_frame(ethernet(0x0800, ipv4(17, udp(1 + i % 50'000, 2000 + i / 50'000, "x"))));
        }
        for (int i = 0; i < 1000 && at.counts()[GATE_COUNT_UNDECIDED] < before + to - from; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    using packets_by_flow = std::map<std::pair<uint16_t, uint16_t>, uint64_t>;
    const auto walk = [&](packets_by_flow &found) {
        uint32_t cursor = 0;
        auto state = flow_walk::goes_on;
        int steps = 0;
        for (; state == flow_walk::goes_on; ++steps)
            state = at.walk_flows(cursor, 1, [&](const gate_flow &flow, const gate_flow_state &is) {
                found[{flow.client_port_be, flow.server_port_be}] += is.counts.packets[GATE_UP];
            });
        EXPECT_EQ(state, flow_walk::ended);
        return steps;
    };
    send_flows(0, 600);
    send_flows(0, 600);
    packets_by_flow found;
    EXPECT_GE(walk(found), 3);
    EXPECT_EQ(found.size(), 600u);
    EXPECT_TRUE(std::ranges::all_of(found, [](const auto &one) { return one.second == 2; }));
    EXPECT_EQ(at.census().forgotten_flows, 0u);

    send_flows(600, GATE_FLOWS + 1000);
    const uint64_t made = at.counts()[GATE_COUNT_FLOWS];
    found.clear();
    walk(found);
    EXPECT_GE(at.census().forgotten_flows, made - GATE_FLOWS);
    EXPECT_EQ(at.census().forgotten_flows, made - found.size());
    EXPECT_EQ(look_at_gate(PINS).census.forgotten_flows, made - found.size());
}

// Segments whose checksum isn't left to the hardware; sockets on a veth pair have no others.
TEST_F(AvcoreGate, ResetsHaveAChecksum) {
    gate at(PINS, {"gw0"});
    at.beat();
    for (const octets &frame : {ethernet(0x0800, ipv4(6, tcp(1000, 443, "abc", 0x18, 7, 99))),
                                ipv6(6, tcp(1000, 443, "abc", 0x18, 7, 99))}) {
        fate(at, frame);
        gate_copy_seen copy;
        ASSERT_TRUE(at.take(copy));
        ASSERT_TRUE(at.decide(copy.head.flow, denial(GATE_RESET, at.generation())));
        send_frame(frame);
        const octets reset = answer(fd_.get());
        ASSERT_EQ(reset.size(), frame.size() - 3);
        const size_t addresses = frame[12] == 8 ? 8 : 32;
        const octets sum_of = reset.substr(reset.size() - 20 - addresses) + be16(6) + be16(20);
        EXPECT_EQ(folded_sum(sum_of), 0xFFFFu);
        EXPECT_EQ(reset.substr(reset.size() - 16, 4), be32(99)) << "the sequence number";
        EXPECT_EQ(reset[reset.size() - 7], 4) << "RST alone";
    }
}

TEST_F(AvcoreGate, IsSetUpWholeOrNotAtAllAndOutlivesItsPins) {
    ASSERT_TRUE(run("tc qdisc add dev gw1 ingress"));
    EXPECT_THROW(gate(PINS, {"gw0", "gw1"}, attach_way::clsact), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(PINS));
    EXPECT_FALSE(run("tc qdisc show dev gw0 | grep clsact"));
    gate_flow flow = {};
    {
        gate at(PINS, {"gw0"});
        ASSERT_TRUE(at.decide(flow, denial(0, at.generation())));
    }
    ASSERT_EQ(umount2(PINS, MNT_DETACH), 0) << "as when its mount namespace ends";
    EXPECT_EQ(look_at_gate(PINS).census.verdicts[GATE_DENY], 1u);
    const gate again(PINS, {"gw0"});
    EXPECT_EQ(look_at_gate(PINS).census.verdicts[GATE_DENY], 1u);
    std::filesystem::rename(layout_folder(PINS), std::string(PINS) + "/v1");
    gate(PINS, {"gw0"});
    EXPECT_EQ(look_at_gate(PINS).census.verdicts[GATE_DENY], 0u) << "of another layout";
    tear_down_gate(PINS);
    EXPECT_FALSE(std::filesystem::exists(PINS));
    EXPECT_FALSE(look_at_gate(PINS).there);

    constexpr char MAKE_ANEW[] = "ip link del gw1 && ip link add gw1 type veth";
    for (const attach_way way : ways_here()) {
        EXPECT_TRUE(run(MAKE_ANEW));
        gate fresh(PINS, {"gw1"}, way);
        EXPECT_TRUE(fresh.follow_interfaces().empty());
        EXPECT_TRUE(run(MAKE_ANEW));
        EXPECT_EQ(fresh.follow_interfaces().changes.size(), 1u);
        EXPECT_EQ(look_at_gate(PINS).ways, attached_by({{"gw1", {way}}}));
    }
    const std::string pin = std::string(PINS) + "/" GATE_LAYOUT "/limits";
    std::filesystem::rename(std::string(PINS) + "/" GATE_LAYOUT "/processors", pin);
    try {
        gate(PINS, {});
        ADD_FAILURE() << "took a map of another size";
    } catch (const std::runtime_error &error) {
        EXPECT_NE(std::string(error.what()).find(pin), std::string::npos) << error.what();
    }
}

TEST_F(AvcoreGate, MovesFromOneWayToTheOtherAmongThePrograms) {
    if (ways_here().size() < 2)
        GTEST_SKIP() << "this kernel has one way";
    foreign_program in_list;
    foreign_program filter;
    in_list.attach_to_tcx("gw0", false);
    filter.attach_to_clsact("gw0");
    const octets frame = ethernet(0x0800, ipv4(17, udp(1000, 2000, "x")));
    using numbers = std::vector<uint64_t>;
    const auto frame_runs = [&](const gate &at, int expected) {
        EXPECT_EQ(fate(at, frame), std::vector<int>{expected});
        return numbers{in_list.runs(), filter.runs()};
    };
    const auto ways_past = [] { return ways_past_gate(PINS, {"gw0"}).size(); };
    for (const attach_way way : {attach_way::clsact, attach_way::tcx, attach_way::clsact}) {
        SCOPED_TRACE(name_of(way));
        gate at(PINS, {"gw0"}, way);
        EXPECT_EQ(look_at_gate(PINS).ways, attached_by({{"gw0", {way}}}));
        EXPECT_EQ(ways_past(), way == attach_way::clsact ? 1u : 0u);
        at.beat();
        at.next_generation();
        EXPECT_EQ(frame_runs(at, GATE_COUNT_UNDECIDED), (numbers{1, 1}));
        gate_copy_seen copy;
        ASSERT_TRUE(at.take(copy));
        ASSERT_TRUE(at.decide(copy.head.flow, denial(0, at.generation())));
        EXPECT_EQ(frame_runs(at, GATE_COUNT_DENIED),
                  (way == attach_way::clsact ? numbers{1, 0} : numbers{0, 0}));
        gate_verdict verdict = denial(0, at.generation());
        verdict.action = GATE_PASS;
        ASSERT_TRUE(at.decide(copy.head.flow, verdict));
        EXPECT_EQ(frame_runs(at, GATE_COUNT_DECIDED), (numbers{1, 1}));
        gate_verdict forgotten = {};
        ASSERT_TRUE(at.decide(copy.head.flow, forgotten));

        EXPECT_TRUE(run("ip link del gw1 && ip link add gw1 type veth && "
                        "tc qdisc add dev gw1 ingress"));
        const attach_way other = way == attach_way::clsact ? attach_way::tcx : attach_way::clsact;
        EXPECT_THROW(gate(PINS, {"gw0", "none"}, other), std::runtime_error);
        EXPECT_THROW(gate(PINS, {"gw0", "gw1"}, attach_way::clsact), std::runtime_error);
        EXPECT_EQ(look_at_gate(PINS).ways, attached_by({{"gw0", {way}}}));
    }
    {
        const gate at(PINS, {"gw0"});
        foreign_program in_front;
        in_front.attach_to_tcx("gw0", true);
        EXPECT_EQ(ways_past(), 1u);
    }
    const auto others_run = [&](uint64_t expected) {
        send_frame(frame);
        uint64_t runs = 0;
        for (int i = 0; i < 1000 && runs < expected; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            runs += in_list.runs() + filter.runs();
        }
        return runs == expected;
    };
    EXPECT_EQ(tear_down_gate(PINS), std::vector<std::string>{"gw0"});
    EXPECT_TRUE(others_run(2)) << "what others attached";
    gate(PINS, {"gw0"}, attach_way::tcx).set_rules({.fail_closed = true});
    // The kernel takes up to a second, or more, to let a frame out to an interface that is up
    // again.
    ASSERT_TRUE(run(
        "ip netns add away && ip link set gw0 netns away && ip -n away link set gw0 up && "
        "timeout 20 sh -c 'until ip link show c0 | grep -q \"state UP\"; do sleep 0.01; done'"));
    EXPECT_EQ(tear_down_gate(PINS), std::vector<std::string>());
    EXPECT_TRUE(others_run(1)) << "beside a gate that is out of reach";
    EXPECT_TRUE(run("ip -n away link set gw0 netns $PPID && ip netns del away"));
}

// How many of this process's threads wait for a lock.
long waiting() {
    std::ifstream locks("/proc/locks");
    const std::string own = " " + std::to_string(getpid()) + " ";
    std::string line;
    long count = 0;
    while (std::getline(locks, line))
        count += line.find("->") != line.npos && line.find(own) != line.npos;
    return count;
}

TEST_F(AvcoreGate, IsSetUpWhileAnotherFails) {
    ASSERT_TRUE(run("tc qdisc add dev gw1 ingress"));
    const auto start = [](const char *interface, long others) {
        std::thread begun([interface] {
            try {
                gate(PINS, {interface}, attach_way::clsact);
            } catch (const std::runtime_error &) {
            }
        });
        for (int i = 0; i < 1000 && waiting() <= others; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return begun;
    };
    make_folder_beside(PINS);
    unique_fd lock = lock_beside(PINS);
    std::thread fails = start("gw1", 0);
    std::thread works = start("gw0", 1);
    lock = {};
    works.join();
    fails.join();
    EXPECT_TRUE(std::filesystem::exists(pin_of(PINS, "verdicts")));
    EXPECT_EQ(look_at_gate(PINS).interfaces, std::vector<std::string>{"gw0"});
}

// Linux 6.1 about a radio that hostapd has, with a station whose frames have four addresses.
constexpr std::string_view RADIO =
    "54000000200002000000000091000000070100000800010000000000080005000a0000000c009900050000000000"
    "00000a000600420000000000000008002e000d000000050053000000000008006200d00700006800000020000200"
    "000000009100000007010000080003000b000000090004006d6f6e30000000000800010000000000080005000600"
    "00000c00990004000000000000000a000600020000000000000008002e000d000000050053000000000008006200"
    "d00700009400000020000200000000009100000007010000080003000a0000000f000400776c616e302e73746131"
    "0000080001000000000008000500040000000c00990003000000000000000a000600020000000000000008002e00"
    "0d0000000500530001000000080026006c0900000800220100000000080027000000000008009f00000000000800"
    "a0006c09000008006200d00700009c0000002000020000000000910000000701000008000300080000000c000400"
    "776c616e305f3100080001000000000008000500030000000c00990002000000000000000a000600020000000001"
    "000008002e000d0000000500530000000000080026006c0900000800220100000000080027000000000008009f00"
    "000000000800a0006c09000008006200d0070000090034006f746865720000009800000020000200000000009100"
    "00000701000008000300040000000a000400776c616e30000000080001000000000008000500030000000c009900"
    "01000000000000000a000600020000000000000008002e000d0000000500530000000000080026006c0900000800"
    "220100000000080027000000000008009f00000000000800a0006c09000008006200d0070000070034006c616200";

TEST(AvcoreStations, AreOfTheAccessPointWithTheirRadioAndAddress) {
    std::vector<std::byte> bytes;
    for (size_t at = 0; at < RADIO.size(); at += 2)
        bytes.push_back(std::byte(std::stoi(std::string(RADIO.substr(at, 2)), nullptr, 16)));
    wireless_list list;
    auto left = static_cast<int>(bytes.size());
    for (auto *message = static_cast<const nlmsghdr *>(static_cast<void *>(bytes.data()));
         mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left))
        if (const auto found = wireless_interface_in(*message))
            list.push_back(*found);
    const std::array<uint8_t, 6> mac = {2, 0, 0, 0, 0, 0};
    const std::array<uint8_t, 6> other = {2, 0, 0, 0, 0, 1};
    EXPECT_EQ(list, (wireless_list{{11, 0, NL80211_IFTYPE_MONITOR, mac},
                                   {10, 0, NL80211_IFTYPE_AP_VLAN, mac},
                                   {8, 0, NL80211_IFTYPE_AP, other},
                                   {4, 0, NL80211_IFTYPE_AP, mac}}));
    for (const unsigned index : {4u, 8u, 10u, 11u, 12u})
        EXPECT_EQ(access_point_of(index, list), index == 10 ? 4u : 0u) << index;
    list[1].radio = 1;
    EXPECT_EQ(access_point_of(10, list), 0u);
    list[1] = {10, 0, NL80211_IFTYPE_AP_VLAN, other};
    EXPECT_EQ(access_point_of(10, list), 8u);
}

TEST(AvcoreRing, GoesOnWhereA32BitKernelCountsAnew) {
    constexpr uint64_t TURN = uint64_t{1} << 32;
    const off_t page = sysconf(_SC_PAGESIZE);
    const unique_fd memory(memfd_create("ring", MFD_CLOEXEC));
    ASSERT_EQ(ftruncate(memory.get(), 2 * page + 2 * GATE_RING_BYTES), 0);
    const auto write = [&memory](off_t at, auto value) {
        ASSERT_EQ(pwrite(memory.get(), &value, sizeof value, at), ssize_t{sizeof value});
    };
    write(0, TURN - 16); // its reader has all
    write(page, TURN - 16);
    const off_t last = 2 * page + GATE_RING_BYTES - 16;
    write(last, uint32_t{8});
    write(last + 8, uint64_t{41});
    write(2 * page, uint32_t{8});
    write(2 * page + 8, uint64_t{42});
    ring copies(memory.get());
    const auto next = [&copies] {
        const std::span<const uint8_t> record = copies.next();
        return record.empty() ? 0 : int{record[0]};
    };
    EXPECT_EQ(next(), 0);
    write(page, uint64_t{16});
    EXPECT_EQ(next(), 41);
    EXPECT_EQ(next(), 42);
    EXPECT_EQ(next(), 0);
}

TEST_F(AvcoreGate, FollowsTheInterfacesOfStations) {
    const gate at(PINS, {"gw0"});
    std::optional<wireless_list> radios = wireless_list();
    gate_places places(PINS, {"gw0"}, [&] { return radios; });
    using texts = std::vector<std::string>;
    const auto after = [&](const char *command) {
        EXPECT_TRUE(run(command));
        places.follow();
        return look_at_gate(PINS).interfaces;
    };
    const auto add = [&](const char *name, uint32_t type) {
        radios->push_back({if_nametoindex(name), 0, type, {2, 0, 0, 0, 0, 1}});
    };
    EXPECT_EQ(after("ip link add gw0.sta1 type veth"), texts{"gw0"}) << "a name says nothing";
    add("gw0", NL80211_IFTYPE_AP);
    add("gw0.sta1", NL80211_IFTYPE_AP_VLAN);
    EXPECT_EQ(after("ip link set gw0.sta1 up"), (texts{"gw0", "gw0.sta1"}));
    EXPECT_EQ(places.name_of(radios->back().index), "gw0");

    radios->back().type = NL80211_IFTYPE_MONITOR;
    const std::optional<wireless_list> told = std::exchange(radios, std::nullopt);
    EXPECT_EQ(after("ip link set gw0.sta1 down"), (texts{"gw0", "gw0.sta1"})) << "nobody says so";
    radios = told;
    EXPECT_TRUE(places.misses_some());
    EXPECT_EQ(after("true"), texts{"gw0"}) << "asked again, although nothing changed";
    EXPECT_FALSE(places.misses_some());
    radios->back().type = NL80211_IFTYPE_AP_VLAN;
    EXPECT_EQ(after("ip link set gw0.sta1 up"), (texts{"gw0", "gw0.sta1"}));
    radios->pop_back();
    EXPECT_EQ(after("ip link del gw0.sta1"), texts{"gw0"});
    EXPECT_EQ(places.names(), texts{"gw0"});

    tear_down_gate(PINS);
    add("gw1", NL80211_IFTYPE_AP_VLAN);
    EXPECT_EQ(after("ip link set gw1 up"), texts()) << "taken down by somebody else";
}

} // namespace
