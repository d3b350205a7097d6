// The message bus's parts that need no network, and the flows that it carries.
#include "avcore/bus/address.h"
#include "avcore/bus/admission.h"
#include "avcore/bus/handshake_gate.h"
#include "avcore/bus/waiting.h"
#include "avcore/bus/wire.h"
#include "avcore/flows/roam_flows.h"
#include "platform/records.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace avcore;

TEST(BusWire, NamesMayFillTheirFields) {
    const std::string name(64, 'n');
    const std::vector<std::byte> bytes = encode_message(name, "topic", {});
    const message_names names = names_of(std::span(bytes).subspan(WIRE_LENGTH_SIZE));
    EXPECT_EQ(names.sender, name);
    EXPECT_EQ(names.topic, "topic");
}

TEST(BusWaiting, TheNewestWaitAndNoneForLong) {
    const auto message = [](int number, int64_t since_ms) {
        return waiting_message{{std::byte(number)}, since_ms};
    };
    for (const bool leaving : {false, true}) {
        waiting_drops drops;
        waiting_messages queue(drops);
        for (int number = 0; number < 20; ++number)
            queue.add(message(number, number), leaving);
        EXPECT_EQ(queue.size(), 16u);
        EXPECT_EQ(drops.crowded_out, 4u);
        EXPECT_EQ(queue.first().bytes[0], std::byte(leaving ? 0 : 4));
        EXPECT_FALSE(queue.drop_old(leaving ? 29'999 : 30'003));
        EXPECT_TRUE(queue.drop_old(30'010));
        EXPECT_EQ(queue.size(), 9u); // 11 to 19
        EXPECT_EQ(queue.next_drop_ms(), 30'011);
        queue.add(message(99, 5)); // one that has waited elsewhere
        EXPECT_EQ(queue.first().bytes[0], std::byte(99));
        EXPECT_EQ(queue.take([](const auto &each) { return each.since_ms > 15; }).size(), 4u);
        EXPECT_EQ(queue.size(), 6u);
    }
}

TEST(BusAddress, OnlyOneHostsAddresses) {
    const auto shown = [](const char *text) {
        const auto address = bus_address::of_peer(text, 5670);
        return address ? address->text() : "";
    };
    for (const char *text : {"192.0.2.1", "fd00::1", "127.0.0.1"})
        EXPECT_EQ(shown(text), text);
    EXPECT_EQ(shown("::ffff:192.0.2.1"), "192.0.2.1");
    for (const char *text :
         {"0.0.0.0", "255.255.255.255", "239.1.2.3", "169.254.7.7", "::", "ff02::1", "fe80::1",
          "febf::1", "::ffff:169.254.7.7", "fd00::1%eth0", "192.0.2.1 ", ""})
        EXPECT_EQ(shown(text), "") << text;
    for (const char *bad : {"", "5670", "::", ":::5670", "[::]", "[::]:0", "[::]:65536",
                            "[192.0.2.1]:1", "192.0.2.1:x", "fd00::1:5670"})
        EXPECT_FALSE(bus_address::of_listener(bad)) << bad;
    EXPECT_EQ(bus_address::of_listener("[::]:5670")->port(), 5670);
}

TEST(BusAdmission, StrangersGoFirstAndThenTheSilent) {
    const struct {
        std::vector<admitted> connections;
        size_t victim;
    } rows[] = {
        {{{true, 5, "a"}, {true, 3, "b"}, {true, 4, "b"}}, 1},
        {{{true, 1, "a"}, {false, 9, "b"}}, 1},
        {{{false, 1, "a"}, {false, 4, "b"}, {false, 3, "b"}}, 2},
        {{{false, 2, "a"}, {false, 1, "b"}, {true, 0, "a"}}, 1},
    };
    for (const auto &row : rows)
        EXPECT_EQ(choose_victim(row.connections), row.victim) << &row - rows;
}

TEST(BusHandshakes, FiveASecondAndFourOfOneDirection) {
    using enum handshake_gate::direction;
    handshake_gate gate;
    for (int64_t now_ms = 0; now_ms < 4; ++now_ms)
        EXPECT_TRUE(gate.start(in, "a", now_ms));
    EXPECT_FALSE(gate.start(in, "a", 5));
    EXPECT_EQ(gate.opens_ms(in, 5), 1'000);
    EXPECT_TRUE(gate.start(out, "b", 5));
    EXPECT_FALSE(gate.start(out, "b", 999));
    EXPECT_EQ(gate.opens_ms(out, 999), 1'000);
    EXPECT_TRUE(gate.start(in, "c", 1'000));
    EXPECT_FALSE(gate.start(out, "b", 1'000));
    EXPECT_TRUE(gate.start(out, "b", 1'001));
    EXPECT_TRUE(gate.seen("c"));
    EXPECT_TRUE(gate.start(in, "d", 3'000));
    EXPECT_FALSE(gate.seen("c"));
}

TEST(RoamFlows, TheLatestNamedOnesOfTheStation) {
    const config settings;
    const client_rules rules(settings, "");
    flow_table flows(rules);
    dns_names names;
    const uint32_t server = inet_addr("192.0.2.7");
    const auto pass = [&](uint8_t mac, uint16_t port, const std::string &name, int64_t time_us) {
        if (!name.empty())
            names.learn({name, {{server, 1}}}, time_us);
        frame_facts frame;
        frame.ipv4 = true;
        frame.ip_proto = 6;
        frame.sender = {{2, 0, 0, 0, 0, mac}, inet_addr("10.1.0.2"), port};
        frame.receiver = {{2, 0, 0, 0, 0, 9}, server, 443};
        flow_row &row = flows.count_frame(frame, 60).row;
        note_frame(row, names, time_us);
        return &row;
    };
    constexpr int64_t second_us = 1'000'000;
    const int64_t now_us = 400 * second_us;
    pass(1, 1, "long.example", 0); // row 1, outlives its name's second
    pass(1, 1, "", now_us - 300 * second_us);
    pass(1, 2, "host.example", now_us - second_us); // row 2
    pass(1, 3, "", now_us);                         // nameless
    pass(1, 3, "other.example", now_us);            // and stays so
    pass(2, 4, "other.example", now_us);
    pass(1, 5, "old.example", now_us - 300 * second_us - 1);
    flow_row *const shown = pass(1, 6, "", now_us); // in its own handshake alone
    shown->application = "shown.example";
    shown->reason.named_by = name_source::handshake;

    roam_notify notify = {};
    notify.sta_mac[0] = 2;
    notify.sta_mac[5] = 1;
    const auto ask = [&](byte_span body) {
        const std::vector<std::byte> answer =
            answer_roam_flows(flows, now_us, {{av_op::rflow_get_roam, 7}, body});
        return std::vector(answer.begin() + sizeof(av_answer_head), answer.end());
    };
    const byte_span asked = std::as_bytes(std::span(&notify, 1));
    const std::vector<std::byte> answer = ask(asked);
    uint32_t count = 0;
    roam_flow records[2];
    ASSERT_EQ(answer.size(), sizeof count + sizeof records);
    memcpy(&count, answer.data(), sizeof count);
    memcpy(records, answer.data() + sizeof count, sizeof records);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(records[0].flow_tag, 2u);
    EXPECT_STREQ(records[0].server_name, "host.example");
    EXPECT_EQ(records[0].server_index, 1u);
    EXPECT_EQ(records[0].port_a, htons(2));
    EXPECT_EQ(records[0].ipv4[1], server);
    EXPECT_STREQ(records[1].server_name, "long.example");

    shown->reason.named_by = name_source::tables; // by the daemon, from another access point
    EXPECT_EQ(ask(asked).size(), 4 + 3 * sizeof(roam_flow));

    for (uint16_t port = 100; port < 300; ++port)
        pass(1, port, "more.example", now_us - port);
    EXPECT_EQ(ask(asked).size(), 4 + 128 * sizeof(roam_flow));
    EXPECT_TRUE(ask(asked.first(75)).empty());
}

} // namespace
