// QUIC's hellos: the vectors of RFC 9001 and RFC 9369, pieces in any order, hostile ones among
// them, and what the DPI engine says meanwhile.
#include "avcore/flows/frame_builder.h"
#include "avcore/settings/config.h"
#include "support/quic_packets.h"

#include <gtest/gtest.h>

namespace {

using namespace avcore;
using outcome = hello_reader::outcome;
constexpr int64_t MAX_AGE_US = hello_reader::MAX_AGE_US;

octets from_hex(const std::string &digits) {
    octets bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

const octets HELLO = client_hello_for("WWW.Example.org");
const octets FIRST = crypto_frame(0, HELLO.substr(0, 20));
const octets REST = crypto_frame(20, HELLO.substr(20));

class AvcoreQuic : public testing::Test {
protected:
    outcome look(const octets &datagram, int64_t time_us = 0, uint16_t port = 1,
                 bool back = false) {
        const endpoint client = {{}, ip("10.0.0.2"), port};
        const endpoint server = {{}, ip("192.0.2.7"), 443};
        const auto seen = hellos.look_at_datagram({true, 0, 17, client, server},
                                                  back ? server : client, datagram, time_us);
        name = seen.host;
        return seen.what;
    }
    hello_reader hellos{2};
    std::string name;
};

// That a whole packet is the RFC's follows from its tag. Of the draft's it is the beginning, which
// shows the keys.
TEST_F(AvcoreQuic, ReadsTheVectors) {
    const octets frames = from_hex(
        "060040f1010000ed0303ebf8fa56f12939b9584a3896472ec40bb863cfd3e86804fe3a47f06a2b69484c000004"
        "13011302010000c000000010000e00000b6578616d706c652e636f6dff01000100000a00080006001d00170018"
        "00100007000504616c706e000500050100000000003300260024001d00209370b2c9caa47fbabaf4559fedba75"
        "3de171fa71f50f1ce15d43e994ec74d748002b0003020304000d0010000e040305030603020308040805080600"
        "2d00020101001c00024001003900320408ffffffffffffffff05048000ffff07048000ffff0801100104800075"
        "300901100f088394c8f03e51570806048000ffff");
    const struct {
        uint32_t version;
        const char *begin, *tag;
    } rows[] = {
        {QUIC_V1, "c000000001088394c8f03e5157080000449e7b9aec34d1b1c98dd7689fb8ec11d242b123dc9b",
         "e221af44860018ab0856972e194cd934"},
        {QUIC_V2, "d76b3343cf088394c8f03e5157080000449ea0c95e82ffe67b6abcdb4298b485dd04de806071",
         "a18b2faa745b6fe189cf772a9f84cbfc"},
    };
    initial_words words = {.id = from_hex("8394c8f03e515708"), .number = 2};
    for (const auto &row : rows) {
        words.version = row.version;
        octets packet = initial_packet(frames, words);
        EXPECT_EQ(packet.substr(0, 38), from_hex(row.begin));
        EXPECT_EQ(packet.substr(1184), from_hex(row.tag));
        EXPECT_EQ(look(packet), outcome::read);
        EXPECT_EQ(name, "example.com");
        packet[600] ^= 1;
        EXPECT_EQ(look(packet), outcome::nothing) << "its tag doesn't hold";
        packet[4] = 3;
        EXPECT_EQ(look(packet), outcome::nothing) << "another version";
    }
    words.version = QUIC_DRAFT_29;
    EXPECT_EQ(
        initial_packet(from_hex("060040c4010000c003036660261ff947"), words).substr(0, 38),
        from_hex("c5ff00001d088394c8f03e5157080000449e4a95245bfb66bc5f93032b7ddd89fe0ff15d9c4f"));
    EXPECT_EQ(look(initial_packet(frames, words)), outcome::read);
    EXPECT_EQ(name, "example.com");
}

TEST_F(AvcoreQuic, PiecesMakeAHelloOrAreInVain) {
    const octets beside = {1, 2, 5, 0, 1, 0, 9, 9, 3, 5, 0, 0, 0, 1, 2, 3, 0x1C, 0, 6, 1, '!'};
    octets cut_name = HELLO;
    cut_name[HELLO.size() - 16] = 255;
    const struct {
        const char *what;
        std::vector<octets> packets; // their frames
        outcome last;
    } rows[] = {
        {"in one", {FIRST + REST}, outcome::read},
        {"the end first, and twice", {REST, REST, FIRST}, outcome::read},
        {"overlapping", {REST, crypto_frame(0, HELLO.substr(0, 30))}, outcome::read},
        {"among all that an Initial may hold", {beside + FIRST + beside + REST}, outcome::read},
        {"a gap", {FIRST, crypto_frame(21, HELLO.substr(21))}, outcome::gathering},
        {"up to the bound", {FIRST, crypto_frame(16'383, {1})}, outcome::gathering},
        {"beyond it", {FIRST, crypto_frame(16'384, {1})}, outcome::in_vain},
        {"the largest offset", {octets{6} + octets(8, 0xFF) + octets{1, 0}}, outcome::in_vain},
        {"another byte in an overlap", {REST, crypto_frame(20, {0xEE})}, outcome::in_vain},
        {"a frame longer than its packet", {FIRST + octets{6, 20, 0x7F, 0xFF}}, outcome::in_vain},
        {"an ACK of everything", {octets{2, 0, 0} + octets(8, 0xFF)}, outcome::in_vain},
        {"a frame of a stream", {FIRST + octets{8, 0}}, outcome::in_vain},
        {"another message", {crypto_frame(0, {2})}, outcome::in_vain},
        {"a hello of 16 KiB", {crypto_frame(0, {1, 0, 0x40, 0})}, outcome::in_vain},
        {"a name longer than its list", {crypto_frame(0, cut_name)}, outcome::in_vain},
    };
    for (uint16_t port = 1; const auto &row : rows) {
        outcome last = outcome::gathering;
        for (const octets &frames : row.packets) {
            EXPECT_EQ(last, outcome::gathering) << row.what;
            last = look(initial_packet(frames), 0, port);
        }
        EXPECT_EQ(last, row.last) << row.what;
        EXPECT_EQ(name, last == outcome::read ? "www.example.org" : "") << row.what;
        ++port;
    }
    EXPECT_EQ(look(initial_packet(crypto_frame(0, client_hello_for("a\nb")))), outcome::read);
    EXPECT_EQ(name, "");
}

TEST_F(AvcoreQuic, FollowsIdsNumbersRetriesAndPacketsThatShareADatagram) {
    const octets zero_rtt = octets{0xD0} + be32(QUIC_V1) + octets{0, 0, 3, 1, 2, 3};
    EXPECT_EQ(look(initial_packet(FIRST, {.frames_size = 0}) + zero_rtt + initial_packet(REST)),
              outcome::read);
    EXPECT_EQ(look(initial_packet(FIRST + REST).substr(0, 1199)), outcome::nothing) << "cut";

    // The server answers with an id of its own; nothing of it is the hello's.
    EXPECT_EQ(look(initial_packet(FIRST, {.number = 0xFFFFFFF0})), outcome::gathering);
    EXPECT_EQ(look(initial_packet(REST), 0, 1, true), outcome::gathering);
    const octets id = octets_of("theirs");
    EXPECT_EQ(look(initial_packet(
                  REST, {.id = id, .first_id = initial_words().id, .number = 0x100000005})),
              outcome::read);

    // After a Retry the keys are new, and the hello is sent anew; so with another version.
    EXPECT_EQ(look(initial_packet(FIRST)), outcome::gathering);
    EXPECT_EQ(look(initial_packet(REST, {.id = id})), outcome::gathering);
    EXPECT_EQ(look(initial_packet(FIRST, {.version = QUIC_V2})), outcome::gathering);
    EXPECT_EQ(look(initial_packet(REST, {.version = QUIC_V2})), outcome::read);
}

TEST_F(AvcoreQuic, WhatNeverEndsIsGivenUp) {
    for (unsigned i = 0; i < hello_reader::MAX_PACKETS; ++i)
        ASSERT_EQ(look(initial_packet(FIRST)), outcome::gathering);
    EXPECT_EQ(look(initial_packet(REST)), outcome::in_vain);

    const endpoint client = {{}, ip("10.0.0.2"), 1};
    const octets begin = {22};
    const auto segment = [&](int32_t at) {
        return hellos.look_at_segment({true, 0, 6, client, {}}, client, at, begin, 0).what;
    };
    for (int32_t i = hello_reader::MAX_PACKETS; i > 0; --i)
        for (const int32_t at : {i * 100, i * 100}) // a repetition isn't counted
            EXPECT_EQ(segment(at), outcome::gathering);
    EXPECT_EQ(segment(0), outcome::in_vain);

    EXPECT_EQ(look(initial_packet(FIRST), 7), outcome::gathering);
    EXPECT_EQ(look(initial_packet(REST), 8 + MAX_AGE_US), outcome::gathering) << "anew";
    for (uint16_t port = 2; port < 5; ++port)
        look(initial_packet(FIRST), 9 + MAX_AGE_US, port);
    EXPECT_EQ(hellos.flows(), 2u);
    EXPECT_EQ(look({}, 0, 3), outcome::gathering);
    EXPECT_EQ(look({}, 0, 4), outcome::gathering);
}

class AvcoreQuicEngine : public testing::Test {
protected:
    const char *inspect(const octets &payload, int64_t time_us = 0, uint16_t segment_size = 0) {
        const std::string data(payload.begin(), payload.end());
        const octets frame = ethernet(0x0800, ipv4(17, udp(port, 443, data)));
        gate_copy copy = {};
        copy.segment_size = segment_size;
        const auto built = builder.build({frame, time_us, {}, &copy});
        trailer = built->frame.trailer();
        done = built->frame.engine_done;
        return trailer.dpi_app_name;
    }
    uint16_t port = 1000;
    config settings;
    frame_builder builder{settings, ""};
    av_pkt_trailer trailer = {};
    bool done = false;
    const octets hello = client_hello_for("www.youtube.com");
    const octets begin = crypto_frame(0, hello.substr(0, 40));
    const octets end = crypto_frame(40, hello.substr(40));
};

TEST_F(AvcoreQuicEngine, SaysMoreUntilTheHelloIsReadOrInVain) {
    EXPECT_STREQ(inspect(initial_packet(end)), "");
    EXPECT_EQ(trailer.dpi_status, AV_DPI_MORE_PACKETS);
    EXPECT_FALSE(done);
    EXPECT_STREQ(inspect(initial_packet(begin)), "YouTube");
    EXPECT_EQ(trailer.dpi_status, AV_DPI_IDENTIFIED);
    EXPECT_STREQ(trailer.kernel_domain, "www.youtube.com");
    EXPECT_TRUE(done);

    ++port;
    const octets nameless = client_hello_for("");
    inspect(initial_packet(crypto_frame(9, nameless.substr(9))));
    EXPECT_STREQ(inspect(initial_packet(crypto_frame(0, nameless.substr(0, 9)))),
                 "HTTP Protocol over TLS SSL");
    EXPECT_TRUE(done);

    ++port;
    inspect(initial_packet(end));
    inspect({0x40}, MAX_AGE_US + 1);
    inspect(initial_packet(end), MAX_AGE_US + 2);
    EXPECT_STRNE(inspect(initial_packet(begin), MAX_AGE_US + 3), "YouTube") << "it was given up";
    EXPECT_FALSE(done) << "nDPI isn't through";

    // nDPI doesn't know version 2, and so comes to an end with other packets.
    ++port;
    inspect(initial_packet(end, {.version = QUIC_V2}));
    for (int i = 0; i < 4; ++i)
        inspect({0xAA});
    EXPECT_EQ(trailer.dpi_status, AV_DPI_MORE_PACKETS);
    EXPECT_FALSE(done);
    EXPECT_STREQ(inspect(initial_packet(begin, {.version = QUIC_V2})), "YouTube");
    EXPECT_TRUE(done);

    ++port;
    inspect(initial_packet(end));
    for (unsigned i = 2; i < dpi_engine::MAX_OTHER_PACKETS; ++i)
        inspect({0x40});
    EXPECT_FALSE(done);
    EXPECT_STREQ(inspect(initial_packet(begin)), "HTTP Protocol over TLS SSL");
    EXPECT_TRUE(done) << "no piece is awaited any more";
}

// Behind the packets there are zeros, which no other packet follows.
TEST_F(AvcoreQuicEngine, CutsWhatSegmentationJoined) {
    octets payload = initial_packet(end, {.frames_size = 0});
    payload.resize(1200);
    payload += initial_packet(begin, {.frames_size = 0});
    EXPECT_STREQ(inspect(payload, 0, 1100), "");
    EXPECT_STREQ(inspect(payload, 0, 1200), "YouTube");
    EXPECT_EQ(cut_datagrams(ipv4(17, udp(1, 2, "four")), 1, 3).size(), 3u);
}

} // namespace
