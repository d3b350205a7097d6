// The gate's program against what is promised of it, for random policies, packets and orders of
// events; JORN_MODEL_SEED chooses others. Runs as root in namespaces of its own.
#include "avcore/gate/gate.h"
#include "shared/unique_fd.h"
#include "support/frames.h"
#include "support/gate_model.h"
#include "support/told_gate.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <random>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

constexpr size_t JOINED = 250;        // bytes of three segments
constexpr unsigned FIRST_PORT = 1022; // 1024 begins like its neighbours, and ends like padding

class choices {
public:
    explicit choices(unsigned long seed) : random_(seed) {}
    unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
    bool once_in(unsigned times) { return below(times) == 0; }
    template <typename first, typename... rest>
    first one_of(first one, rest... others) {
        return std::array<first, 1 + sizeof...(rest)>{
            one, static_cast<first>(others)...}[below(1 + sizeof...(rest))];
    }

private:
    std::mt19937_64 random_;
};

struct made_frame {
    octets frame;
    made_packet is;
    size_t network = 14;
};

void set_class(octets &frame, size_t network, uint8_t traffic_class) {
    uint8_t *head = frame.data() + network;
    if (head[0] >> 4 == 6) {
        head[0] = static_cast<uint8_t>(0x60 | traffic_class >> 4);
        head[1] = static_cast<uint8_t>(traffic_class << 4 | (head[1] & 15));
        return;
    }
    head[1] = traffic_class;
    head[10] = head[11] = 0;
    const octets sum = be16(0xFFFFu - folded_sum({head, size_t{head[0] & 15u} * 4}));
    std::ranges::copy(sum, head + 10);
}

// Makes frames from the inside out, and says of each what it is, as it knows from making it.
class frame_maker {
public:
    frame_maker(choices &random, unsigned clients, unsigned ports)
        : random_(random), clients_(clients), ports_(ports) {}

    made_frame make();
    bool takes_tags_off = false; // the way to the gate does, of the outermost

private:
    choices &random_;
    unsigned clients_;
    unsigned ports_;
    octets client_;
    octets server_;
    uint8_t protocol_ = 0;

    static void become(made_packet &is, gate_count nature);
    gate_flow flow(unsigned client_port, unsigned server_port) const;
    octets ip_header(const made_packet &is, bool up, size_t size) const;
    octets make_transport(made_packet &is);
    octets make_error(made_packet &is);
    octets make_packet(made_packet &is);
    void spoil(made_frame &made);
    void tag(made_frame &made);
    bool make_fragment(made_packet &is);
};

void frame_maker::become(made_packet &is, gate_count nature) {
    is.nature = nature;
    is.first_fragment = is.is_error = false;
    is.segments = 1;
    is.segment_size = 0;
}

gate_flow frame_maker::flow(unsigned client_port, unsigned server_port) const {
    const octets mapped = client_.size() == 4 ? octets(10, 0) + octets(2, 0xFF) : octets();
    gate_flow flow = {};
    std::ranges::copy(mapped + client_, flow.client);
    std::ranges::copy(mapped + server_, flow.server);
    flow.client_port_be = htons(static_cast<uint16_t>(client_port));
    flow.server_port_be = htons(static_cast<uint16_t>(server_port));
    flow.proto = protocol_ == IPPROTO_ICMPV6 ? uint8_t{IPPROTO_ICMP} : protocol_;
    return flow;
}

octets frame_maker::ip_header(const made_packet &is, bool up, size_t size) const {
    const octets ends = up ? client_ + server_ : server_ + client_;
    if (is.is_v6)
        return be32(0x60000000) + be16(size) + octets{protocol_, 64} + ends;
    return octets{0x45, 0} + be16(size + 20) + be32(0x10000) + octets{64, protocol_, 0, 0} + ends;
}

octets frame_maker::make_transport(made_packet &is) {
    const bool up = is.way == GATE_UP;
    std::array ports = {FIRST_PORT + random_.below(ports_),
                        random_.one_of(443u, 53u, 67u, FIRST_PORT)};
    if (protocol_ == IPPROTO_IGMP || protocol_ == IPPROTO_ICMPV6 || protocol_ == IPPROTO_ICMP) {
        const uint8_t echo = is.is_v6 ? 128 : 8;
        const bool always = protocol_ == IPPROTO_IGMP || random_.once_in(2);
        is.nature = always ? GATE_COUNT_ALWAYS : GATE_COUNT_UNDECIDED;
        is.flow = flow(0, 0);
        return octets{always ? (is.is_v6 ? random_.one_of<uint8_t>(135, 143) : uint8_t{9}) : echo} +
               octets(11, 0);
    }
    if (protocol_ == IPPROTO_GRE || protocol_ == 0 || protocol_ == 255) {
        is.flow = flow(0, 0);
        return octets(12, 0);
    }
    if (protocol_ == IPPROTO_UDP && up && !is.is_v6 && random_.once_in(20)) { // DHCP
        client_ = octets(4, 0);
        server_ = octets(4, 0xFF);
        ports = {68, 67};
        if (random_.once_in(4))
            std::swap(ports[0], ports[1]); // which isn't any
    }
    if (random_.once_in(8)) {
        is.segment_size = 100;
        is.segments = 3;
    }
    is.has_data = is.segments > 1 || !random_.once_in(3);
    const std::string data(is.segments > 1 ? JOINED : is.has_data * (1 + random_.below(60)), 'x');
    is.flow = flow(ports[0], ports[1]);
    if (protocol_ == IPPROTO_UDP)
        return udp(ports[!up], ports[up], data);
    is.tcp_flags = random_.one_of<uint8_t>(2, 0x12, 0x18, 0x10, 0x11, 4, 0x14);
    return tcp(ports[!up], ports[up], data, is.tcp_flags);
}

// It quotes a packet that went the other way, whole as far as its ports, or less.
octets frame_maker::make_error(made_packet &is) {
    const bool up = is.way == GATE_UP;
    const std::array ports = {FIRST_PORT + random_.below(ports_),
                              random_.one_of(443u, 53u, FIRST_PORT)};
    const size_t size = random_.one_of<size_t>(3, 4, 8);
    protocol_ = random_.one_of<uint8_t>(IPPROTO_TCP, IPPROTO_UDP);
    is.is_error = true;
    if (size >= 4)
        is.quoted = flow(ports[0], ports[1]);
    const octets quoted =
        ip_header(is, !up, 100) + (be16(ports[up]) + be16(ports[!up]) + be32(0)).substr(0, size);
    protocol_ = is.is_v6 ? 58 : 1;
    const uint8_t type =
        is.is_v6 ? random_.one_of<uint8_t>(1, 2, 4) : random_.one_of<uint8_t>(3, 5, 11);
    return octets{type} + octets(7, 0) + quoted;
}

bool frame_maker::make_fragment(made_packet &is) {
    if (is.segments > 1 || is.is_error || !random_.once_in(12))
        return false;
    is.first_fragment = is.nature == GATE_COUNT_UNDECIDED && random_.once_in(2);
    if (!is.first_fragment)
        is.nature = GATE_COUNT_FRAGMENT;
    return true;
}

octets frame_maker::make_packet(made_packet &is) {
    const bool up = is.way == GATE_UP;
    octets rest = random_.once_in(12) ? make_error(is) : make_transport(is);
    const bool fragment = make_fragment(is);
    if (!is.is_v6) {
        const octets options(size_t{4} * random_.below(3), 1);
        octets head = ip_header(is, up, options.size() + rest.size());
        head[0] = static_cast<uint8_t>(0x45 + options.size() / 4);
        if (fragment)
            head.replace(6, 2, be16(is.first_fragment ? 0x2000 : 1 + random_.below(100)));
        return head + options + rest;
    }
    const unsigned headers = random_.once_in(4) ? random_.below(fragment ? 8 : 10) : 0;
    is.extended = headers > 0 || fragment;
    if (fragment) {
        const size_t field = is.first_fragment ? 1 : 8 + 8 * random_.below(9);
        rest = octets{protocol_, 0} + be16(field) + be32(1) + rest;
        protocol_ = IPPROTO_FRAGMENT;
    }
    for (unsigned i = 0; i < headers; i++) {
        rest = octets{protocol_, 0, 1, 4, 0, 0, 0, 0} + rest;
        protocol_ = IPPROTO_DSTOPTS;
    }
    if (headers > 8)
        become(is, GATE_COUNT_DEEP_HEADERS);
    return ip_header(is, up, rest.size()) + rest;
}

// What nobody may read as a flow.
void frame_maker::spoil(made_frame &made) {
    if (!random_.once_in(25))
        return;
    if (random_.once_in(2)) {
        become(made.is, GATE_COUNT_MALFORMED);
        made.frame.pop_back();
        return;
    }
    become(made.is, GATE_COUNT_RESERVED);
    const size_t side = random_.below(2);
    if (made.is.is_v6)
        made.frame.replace(22 + 16 * side, 16, octets(10, 0) + octets(2, 0xFF) + be32(1));
    else
        made.frame.replace(26 + 4 * side, 4, be32(0xF0000000 + random_.below(100)));
}

void frame_maker::tag(made_frame &made) {
    if (!random_.once_in(6))
        return;
    const unsigned tags = 1 + random_.below(random_.one_of(1u, 3u, 12u));
    unsigned vlans = 0;
    for (unsigned i = 0; i < tags; i++) {
        const bool vlan = random_.once_in(4);
        const bool seen = !takes_tags_off || i + 1 < tags;
        vlans += vlan && seen;
        made.network += seen * size_t{4};
        made.frame.insert(12, octets{0x81, 0, 0xE0, vlan});
    }
    if (vlans > 2 || tags - takes_tags_off > 10)
        become(made.is, GATE_COUNT_TAGS);
}

made_frame frame_maker::make() {
    made_frame made;
    made_packet &is = made.is;
    is.way = random_.once_in(3) ? GATE_DOWN : GATE_UP;
    is.is_v6 = random_.once_in(3);
    const unsigned client = random_.below(clients_);
    const unsigned server = random_.one_of(200u, 201u, client == 0 ? 1u : 0u); // or a client
    const octets net = is.is_v6 ? octets{0x20, 1, 0x0D, 0xB8} + octets(8, 0) : octets();
    client_ = net + be32(0x0A010000 + client);
    server_ = net + be32(0x0A010000 + server);
    protocol_ = random_.one_of<uint8_t>(6, 6, 6, 17, 17, 17, 47, 255, is.is_v6 ? 58 : 0,
                                        is.is_v6 ? 58 : 1, is.is_v6 ? 58 : 2);
    if (random_.once_in(9)) {
        const auto type = random_.one_of(0x0806u, 0x888Eu, 0x88CCu, 38u, 0x8864u);
        is.nature = type == 0x8864 ? GATE_COUNT_NOT_IP : GATE_COUNT_ALWAYS;
        is.is_v6 = false;
        made.frame = ethernet(type, octets(46 + size_t{40} * random_.below(60), 0x42));
    } else {
        made.frame = ethernet(is.is_v6 ? 0x86DD : 0x0800, make_packet(is));
        is.traffic_class = static_cast<uint8_t>(random_.below(256));
        set_class(made.frame, 14, is.traffic_class);
        spoil(made);
    }
    tag(made);
    is.client = {{2, 0, 0, 0, 0, static_cast<uint8_t>(client)}, {}};
    is.to_group = random_.once_in(9);
    octets ends[] = {octets(is.client.mac, 6), octets{2, 0, 0, 0, 1, 5}};
    if (is.way == GATE_UP)
        std::swap(ends[0], ends[1]);
    ends[0][0] |= is.to_group && is.way == GATE_UP;
    is.to_group = (ends[0][0] & 1) != 0;
    made.frame.replace(0, 12, ends[0] + ends[1]);
    const size_t headers = is.segments > 1 ? made.frame.size() - JOINED : 0;
    is.ip_bytes = made.frame.size() - made.network + (is.segments - 1) * (headers - made.network);
    if (is.nature != GATE_COUNT_MALFORMED)
        made.frame += octets(random_.below(6), 0); // padding
    is.length = static_cast<uint32_t>(made.frame.size());
    is.frame_bytes = is.length + (is.segments - 1) * headers;
    return made;
}

class AvcoreGateModel : public testing::Test {
protected:
    AvcoreGateModel() {
        const char *chosen = getenv("JORN_MODEL_SEED");
        seed_ = chosen ? strtoul(chosen, nullptr, 10) : 20261127;
        EXPECT_EQ(system("sysctl -qw net.ipv6.conf.default.disable_ipv6=1 && "
                         "ip link add gw0 mtu 9000 type veth peer name c0 mtu 9000 && "
                         "for i in gw0 c0; do ip link set $i arp off up; done"),
                  0);
        CPU_ZERO(&processors_);
        sched_getaffinity(0, sizeof processors_, &processors_);
    }
    ~AvcoreGateModel() override {
        sched_setaffinity(0, sizeof processors_, &processors_);
        EXPECT_EQ(system("ip link del gw0"), 0);
    }

    unsigned long seed_;
    cpu_set_t processors_;
};

// The gate, what decides for it and what comes to it, beside the model, which is told the same.
class world {
public:
    world(unsigned long seed, const told_gate::bounds &bounds, unsigned clients, unsigned ports);
    void step();

    std::array<uint64_t, GATE_COUNTS> seen = {}; // of the model, all packets together
    uint64_t forgotten_denials = 0;              // that the full map has lost
    void compare_counters();

private:
    choices random_;
    frame_maker maker_;
    told_gate gate_;
    gate_model model_;
    told_gate::bounds bounds_;
    std::vector<unsigned> processors_;
    unsigned processor_ = 0;
    std::map<unsigned, uint64_t> looks_; // at the time, of each processor
    bool hurries_ = false;               // packets come fast
    bool alive_ = true;                  // somebody beats
    bool drains_ = true;                 // and takes the copies
    std::vector<made_packet> asked_;     // whose flows wait for a verdict, or have had one
    std::array<made_frame, 16> sent_;    // some come again
    std::deque<made_frame> held_;
    std::deque<told_gate::copy> copies_; // that are in the ring

    bool is_full() const { return bounds_.flows < GATE_FLOWS; }
    void write_settings() { gate_.write("settings", uint32_t{0}, model_.settings); }
    void change_settings();
    void change_limit();
    void decide();
    void move();
    void pass_time();
    void send(made_frame made);
    void put_back();
    void forget(const made_packet &is);
    void compare_frame(const made_frame &made, const packet_fate &fate, const told_gate::outcome &);
    void expect_copy(const made_frame &made, const packet_fate &fate);
    void compare_copies();
};

world::world(unsigned long seed, const told_gate::bounds &bounds, unsigned clients, unsigned ports)
    : random_(seed), maker_(random_, clients, ports), gate_(bounds), bounds_(bounds) {
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    for (unsigned i = 0; i < CPU_SETSIZE; i++)
        if (CPU_ISSET(i, &allowed))
            processors_.push_back(i);
    model_.ring_room = bounds.ring_bytes - 1;
    model_.now_ns = model_.settings.beat_ns = 1'000'000'000'000;
    model_.settings.generation = 1;
    model_.settings.copies_per_second = 1000;
    model_.settings.back_index = 0xFFFFFF; // nowhere: what comes back has gone on at once
    std::ranges::generate(sent_, [&] { return maker_.make(); });
    move();
    for (unsigned i = 0; i < 10; i++)
        change_limit();
    write_settings();
}

void world::move() {
    processor_ = processors_[random_.below(static_cast<unsigned>(processors_.size()))];
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor_, &one);
    sched_setaffinity(0, sizeof one, &one);
}

void world::change_settings() {
    gate_settings &settings = model_.settings;
    settings.fail_closed = random_.once_in(2);
    settings.rules = random_.below(16);
    settings.copies_per_second = random_.one_of(0u, 3u, 50u, 1000u);
    settings.holds_per_second = random_.one_of(0u, 3u, 100u);
    settings.unattended = random_.below(4);
    settings.back_mark = random_.one_of(0x1234u, 0x1234u, 0u);
}

void world::change_limit() {
    const uint32_t bucket = 1 + random_.below(8);
    const gate_limit limit = {random_.one_of(0u, 1000u, 20000u, 1000000u),
                              random_.one_of(1u, 3000u, 50000u)};
    model_.limits[bucket] = limit;
    gate_.write("limits", bucket, limit);
}

// A verdict may be late, the second one, outdated already, or for the same ends in the other order.
void world::decide() {
    if (asked_.empty())
        return;
    gate_flow flow = asked_[random_.below(static_cast<unsigned>(asked_.size()))].flow;
    if (!held_.empty() && random_.once_in(2))
        flow = held_.back().is.flow;
    if (random_.once_in(10)) {
        std::swap(flow.client, flow.server);
        std::swap(flow.client_port_be, flow.server_port_be);
    }
    gate_verdict verdict = {};
    verdict.generation = model_.settings.generation - random_.once_in(4);
    verdict.action = random_.once_in(3) ? GATE_DENY : GATE_PASS;
    if (verdict.action == GATE_DENY) {
        verdict.flags = random_.once_in(2) ? GATE_RESET : 0;
    } else {
        verdict.flags = static_cast<uint8_t>(random_.below(32)) & ~GATE_RESET;
        verdict.dscp = static_cast<uint8_t>(random_.below(64));
        verdict.priority = 256 + random_.below(8);
        for (uint32_t &bucket : verdict.bucket)
            bucket = random_.once_in(2) ? random_.below(9) : 0;
        if (!is_full() && random_.once_in(3))
            verdict.queue_at = if_nametoindex(random_.one_of("gw0", "c0"));
    }
    if (model_.holds.contains(flow))
        verdict.flags |= GATE_WAS_HELD; // as avcore does
    const auto write = [&] {
        model_.verdicts[flow] = verdict;
        gate_.write("verdicts", flow, verdict);
    };
    write();
    flow = fragments_of(flow);
    if (verdict.bucket[0] | verdict.bucket[1])
        write();
    model_.settings.changes++;
}

void world::pass_time() {
    if (random_.once_in(500))
        hurries_ = !hurries_;
    const bool leaps = !hurries_ && random_.once_in(40);
    model_.now_ns += leaps ? random_.below(2'500'000) * uint64_t{1000} : random_.below(1'000'000);
    gate_.tell_time(model_.now_ns);
    if (alive_ && random_.once_in(10))
        model_.settings.beat_ns = model_.now_ns;
}

void world::step() {
    pass_time();
    const unsigned what = random_.below(200);
    if (what < 3)
        change_settings();
    else if (what < 5)
        model_.settings.generation++;
    else if (what < 8)
        change_limit();
    else if (what < 40)
        decide();
    else if (what < 44)
        move();
    else if (what < 46)
        alive_ = !alive_ || !random_.once_in(3);
    else if (what < 48)
        drains_ = random_.once_in(2);
    write_settings();
    if (what < 60 && !held_.empty())
        put_back();
    else
        send(random_.once_in(2) ? maker_.make() : sent_[random_.below(16)]);
    if (drains_)
        compare_copies();
}

void world::put_back() {
    made_frame made = held_.front();
    held_.pop_front();
    made.is.mark = model_.settings.back_mark;
    send(made);
}

// What the full maps have forgotten, which ones is the kernel's choice.
void world::forget(const made_packet &is) {
    const gate_flow pair = fragments_of(is.flow);
    for (const gate_flow &flow : {is.flow, pair, is.quoted.value_or(pair)}) {
        const auto found = model_.verdicts.find(flow);
        if (found == model_.verdicts.end() || gate_.knows("verdicts", flow))
            continue;
        forgotten_denials += found->second.action == GATE_DENY;
        model_.verdicts.erase(found);
    }
    if (!gate_.knows("clients", is.client))
        model_.clients.erase(is.client);
    if (!gate_.knows("holds", is.flow))
        model_.holds.erase(is.flow);
}

void world::send(made_frame made) {
    made_packet &is = made.is;
    sent_[random_.below(16)] = made;
    is.if_index = if_nametoindex("gw0");
    is.priority = random_.below(8);
    if (is.mark == 0 && random_.once_in(4))
        is.mark = 1 + random_.below(9);
    if (is_full())
        forget(is);
    uint64_t &look = looks_[processor_];
    if (look / told_gate::TICK_NS != model_.now_ns / told_gate::TICK_NS)
        look = model_.now_ns;
    model_.tick_ns = look;
    const auto before = gate_.counts();
    const packet_fate fate = model_.fate_of(is);
    const told_gate::outcome outcome = gate_.run(
        {made.frame, is.way, is.if_index, is.mark, is.priority, is.segments, is.segment_size});
    const auto after = gate_.counts();
    for (size_t i = 0; i < GATE_COUNTS; i++) {
        seen[i] += fate.counts[i];
        if (i != GATE_COUNT_FLOWS || !is_full()) {
            ASSERT_EQ(after[i] - before[i], fate.counts[i]) << "count " << i;
        }
    }
    ASSERT_EQ(outcome.passes, fate.passes);
    if (fate.passes)
        compare_frame(made, fate, outcome);
    if (fate.captured > 0)
        expect_copy(made, fate);
}

void world::expect_copy(const made_frame &made, const packet_fate &fate) {
    const made_packet &is = made.is;
    gate_copy head = {};
    head.flow = is.flow;
    head.time_ns = model_.now_ns;
    head.length = is.length;
    head.direction = is.way;
    head.held = fate.is_held;
    head.captured = static_cast<uint16_t>(fate.captured);
    head.segment_size = static_cast<uint16_t>(is.segment_size);
    head.is_ipv6 = is.is_v6;
    copies_.push_back({head, made.frame.substr(0, fate.captured)});
    if (asked_.size() < 50)
        asked_.push_back(is);
    else
        asked_[random_.below(50)] = is;
    if (fate.is_held && is.segments == 1)
        held_.push_back(made);
}

void world::compare_frame(const made_frame &made, const packet_fate &fate,
                          const told_gate::outcome &outcome) {
    ASSERT_EQ(outcome.mark, fate.mark);
    ASSERT_EQ(outcome.priority, fate.priority);
    if (!fate.is_reset) {
        octets wanted = made.frame;
        if (fate.traffic_class != made.is.traffic_class)
            set_class(wanted, made.network, fate.traffic_class);
        ASSERT_EQ(outcome.frame, wanted);
        return;
    }
    ASSERT_LE(outcome.frame.size(), made.frame.size());
    const uint8_t flags = outcome.frame[outcome.frame.size() - 7];
    ASSERT_EQ(flags, 4 | (made.is.tcp_flags & 16)) << "RST, and ACK as it was";
}

void world::compare_copies() {
    model_.ring_room = bounds_.ring_bytes - 1;
    const auto taken = gate_.take_copies();
    ASSERT_EQ(taken.size(), copies_.size());
    for (size_t i = 0; i < taken.size(); i++) {
        const gate_copy &is = taken[i].head;
        const gate_copy &wanted = copies_[i].head;
        ASSERT_EQ(memcmp(&is.flow, &wanted.flow, sizeof is.flow), 0);
        const auto facts = [](const gate_copy &of) {
            return std::array<uint64_t, 7>{of.time_ns,  of.length,       of.direction, of.held,
                                           of.captured, of.segment_size, of.is_ipv6};
        };
        ASSERT_EQ(facts(is), facts(wanted));
        ASSERT_EQ(taken[i].frame, copies_[i].frame);
    }
    copies_.clear();
}

void world::compare_counters() {
    for (const auto &[flow, state] : model_.flows) {
        const gate_counter is = gate_.counter_of(flow);
        ASSERT_EQ(memcmp(&is, &state.counter, sizeof is), 0);
    }
}

void run(world &all, unsigned long seed) {
    for (int i = 0; i < 20'000 && !testing::Test::HasFatalFailure(); i++) {
        all.step();
        if (testing::Test::HasFatalFailure())
            std::cerr << "JORN_MODEL_SEED=" << seed << ", step " << i << '\n';
    }
}

TEST_F(AvcoreGateModel, PassesWhatIsPromised) {
    world all(seed_, {.ring_bytes = 16384}, 2, 4);
    run(all, seed_);
    all.compare_counters();
    for (size_t i = 0; i < GATE_COUNTS; i++)
        if (i != GATE_COUNT_HELD_LONG) {
            EXPECT_GT(all.seen[i], 0u) << "of count " << i;
        }
}

TEST_F(AvcoreGateModel, JudgesAgainWhatFullMapsForgot) {
    world all(seed_, {.flows = 256, .clients = 64, .holds = 64, .ring_bytes = 16384}, 100, 40);
    run(all, seed_);
    EXPECT_GT(all.forgotten_denials, 20u);
}

// What is sent there begins with a virtio_net_hdr.
unique_fd socket_with_heads(const char *interface) {
    unique_fd fd(socket(AF_PACKET, SOCK_RAW, 0));
    sockaddr_ll at = {};
    at.sll_family = AF_PACKET;
    at.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    const int heads = 1;
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&at), sizeof at), 0);
    EXPECT_EQ(setsockopt(fd.get(), SOL_PACKET, PACKET_VNET_HDR, &heads, sizeof heads), 0);
    return fd;
}

avcore::gate_counts counts_since(const avcore::gate_counts &before, const avcore::gate &gate) {
    avcore::gate_counts counts = gate.counts();
    for (size_t i = 0; i < GATE_COUNTS; i++)
        counts[i] -= before[i];
    return counts;
}

// Through a pair of veth, at the real time: the outermost tag is beside the frame then, and of a
// frame of more than a page that is said to have short headers only those lie where programs see
// it.
TEST_F(AvcoreGateModel, ReadsWhatLiesBesideTheFrameAndInPages) {
    constexpr char pins[] = "/run/jorn/gate/";
    const unique_fd fd = socket_with_heads("c0");
    avcore::gate gate(pins, {"gw0"});
    gate.set_rules({.fail_closed = true, .copies_per_second = 1'000'000});
    gate_model model;
    model.settings.generation = gate.generation();
    model.settings.copies_per_second = 1'000'000;
    choices random(seed_);
    frame_maker maker(random, 2, 4);
    maker.takes_tags_off = true;
    int in_pages = 0;
    for (int i = 0; i < 200 && !HasFatalFailure(); i++) {
        made_frame made = maker.make();
        made_packet &is = made.is;
        if (is.way == GATE_DOWN || is.segments > 1)
            continue;
        if (is.nature != GATE_COUNT_MALFORMED && is.nature != GATE_COUNT_ALWAYS && !is.is_error) {
            made.frame += octets(4300, 0);
            in_pages++;
        }
        gate.beat();
        model.settings.beat_ns = model.now_ns = model.tick_ns += 1'000'000'000;
        model.ring_room = GATE_RING_BYTES;
        const avcore::gate_counts before = gate.counts();
        const packet_fate fate = model.fate_of(is);
        const octets sent = octets(2, 0) + octets{14, 0} + octets(6, 0) + made.frame;
        ASSERT_EQ(send(fd.get(), sent.data(), sent.size(), 0), static_cast<ssize_t>(sent.size()));
        for (int tries = 0; tries < 1000 && counts_since(before, gate) != fate.counts; tries++)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(counts_since(before, gate), fate.counts)
            << "JORN_MODEL_SEED=" << seed_ << ", round " << i;
        avcore::gate_copy_seen copy;
        ASSERT_EQ(gate.take(copy), fate.captured > 0);
        if (fate.captured == 0)
            continue;
        ASSERT_EQ(memcmp(&copy.head.flow, &is.flow, sizeof is.flow), 0);
        gate_verdict verdict = {};
        verdict.generation = model.settings.generation;
        verdict.action = random.once_in(2) ? GATE_DENY : GATE_PASS;
        if (random.once_in(2))
            continue;
        model.verdicts[is.flow] = verdict;
        ASSERT_TRUE(gate.decide(is.flow, verdict));
    }
    EXPECT_GT(in_pages, 50);
    avcore::tear_down_gate(pins);
}

} // namespace
