// The feeder against a capture that loses, delays and repeats.
#include "avcore/feed/feeder.h"

#include <deque>
#include <gtest/gtest.h>
#include <map>

namespace {

using avcore::feeder;

class Feeder : public testing::Test {
protected:
    using ports = std::vector<uint16_t>;

    static flow_key key(uint16_t port) {
        flow_key key = {};
        key.src_port_be = port;
        return key;
    }
    void add(uint16_t port, size_t size = 300) {
        feeder_.add({std::vector<uint8_t>(size), key(port), 0}, now_ms);
    }
    // What goes out now.
    ports send() {
        ports sent;
        while (const avcore::fed_frame *frame = feeder_.next_to_send(now_ms)) {
            sent.push_back(frame->key.src_port_be);
            feeder_.sent(now_ms);
        }
        return sent;
    }
    bool verdict(uint16_t port) { return feeder_.take_verdict(key(port), now_ms).has_value(); }
    ports after(int64_t ms) {
        now_ms += ms;
        feeder_.tick(now_ms);
        return send();
    }
    // Past the first frame, which goes out alone.
    void start() {
        add(99);
        send();
        verdict(99);
    }
    int64_t now_ms = 1000;
    feeder feeder_;
};

TEST_F(Feeder, RepeatsTheFirstFrameUntilAnsweredAndThenWaitsForItsCopies) {
    add(1);
    EXPECT_EQ(send(), ports{1});
    EXPECT_FALSE(feeder_.has_room(now_ms));
    EXPECT_EQ(after(199), ports{});
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(after(200), ports{1});
    EXPECT_TRUE(verdict(1));
    EXPECT_FALSE(verdict(1)) << "of a superfluous copy";
    EXPECT_FALSE(feeder_.has_room(now_ms)) << "more of them may come and look like a later frame's";
    after(200);
    EXPECT_TRUE(feeder_.has_room(now_ms));
    EXPECT_EQ(feeder_.counts().resent, 0u);
    EXPECT_EQ(feeder_.counts().start_repeats, 20u);
    EXPECT_FALSE(feeder_.waiting());
}

TEST_F(Feeder, ResendsWhatALaterVerdictOvertook) {
    start();
    for (const uint16_t port : ports{1, 2, 3, 4})
        add(port);
    EXPECT_EQ(feeder_.judged(), 1u) << "nothing of them has left";
    EXPECT_EQ(send(), (ports{1, 2, 3, 4}));
    EXPECT_EQ(feeder_.judged(), 2u) << "the frame of the start was number 1";
    EXPECT_TRUE(verdict(3));
    EXPECT_EQ(feeder_.judged(), 5u);
    EXPECT_EQ(send(), (ports{1, 2}));
    EXPECT_TRUE(verdict(4));
    EXPECT_EQ(feeder_.judged(), 5u) << "the overtaken ones are behind";
    EXPECT_TRUE(verdict(1));
    EXPECT_TRUE(verdict(2));
    EXPECT_FALSE(verdict(7)) << "nobody's";
    EXPECT_EQ(feeder_.counts().resent, 2u);
    EXPECT_EQ(feeder_.counts().answered, 5u);
    EXPECT_EQ(feeder_.counts().overlooked, 1u);
}

TEST_F(Feeder, ASlowDaemonCostsOneCopyAndMixesUpNothing) {
    start();
    for (int i = 0; i < 3; ++i)
        add(5); // one flow: the copies can't be told from the frames
    send();
    EXPECT_EQ(after(200), ports{5});
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(verdict(5));
    EXPECT_EQ(feeder_.judged(), 4u) << "the copy on its way is of an answered frame";
    EXPECT_FALSE(feeder_.has_room(now_ms));
    EXPECT_FALSE(verdict(5));
    EXPECT_TRUE(feeder_.has_room(now_ms));
    EXPECT_EQ(feeder_.counts().resent, 1u);
}

TEST_F(Feeder, ResendsEverythingWhenAllWasLost) {
    start();
    for (const uint16_t port : ports{1, 2, 3})
        add(port);
    send();
    EXPECT_EQ(after(200), ports{1});
    EXPECT_TRUE(verdict(1));
    EXPECT_EQ(after(200), (ports{2, 3}));
    EXPECT_TRUE(verdict(2));
    EXPECT_TRUE(verdict(3));
    EXPECT_TRUE(feeder_.has_room(now_ms));
}

// It judges five frames, then doesn't get to run for a quarter of a second: copies that were taken
// for lost are answered late, and a verdict fits every third frame.
TEST_F(Feeder, LosesNothingToADaemonThatIsStarved) {
    start();
    std::deque<uint16_t> captured;
    uint16_t added = 0;
    for (int ms = 0; feeder_.counts().answered < 301 && ms < 60'000; ++ms) {
        if (added < 300 && feeder_.has_room(now_ms))
            add(added++ % 3);
        for (const uint16_t port : after(1)) {
            if (captured.size() < 500)
                captured.push_back(port);
        }
        for (int left = ms % 250 == 0 ? 5 : 0; left > 0 && !captured.empty(); --left) {
            verdict(captured.front());
            captured.pop_front();
        }
    }
    EXPECT_EQ(feeder_.counts().answered, 301u);
    EXPECT_EQ(feeder_.counts().unanswered, 0u);
    EXPECT_LT(feeder_.counts().resent, 10u) << "they take the daemon's time";
}

TEST_F(Feeder, SendsInASilenceOneFrameAfterAnotherEverLater) {
    start();
    for (const uint16_t port : ports{1, 2, 3})
        add(port);
    send();
    std::map<int64_t, ports> sent;
    for (int64_t ms = 100; ms <= 4'500; ms += 100) {
        if (const ports now = after(100); !now.empty())
            sent[ms] = now;
    }
    EXPECT_EQ(sent,
              (std::map<int64_t, ports>{
                  {200, {1}}, {600, {2}}, {1400, {3}}, {2400, {1}}, {3400, {2}}, {4400, {3}}}));
}

TEST_F(Feeder, GivesUpAFrameThatOthersOvertakeTenTimesMore) {
    start();
    add(1);
    for (uint16_t other = 100; other < 111; ++other) {
        add(other);
        ASSERT_EQ(send().size(), 2u);
        ASSERT_TRUE(verdict(other));
    }
    EXPECT_EQ(feeder_.counts().resent, 10u);
    EXPECT_EQ(feeder_.counts().unanswered, 1u);
    EXPECT_FALSE(feeder_.waiting());
}

TEST_F(Feeder, ASilentDaemonIsGoneAfterFiveSecondsAndNoFrameSooner) {
    start();
    now_ms += 60'000; // nothing to answer
    EXPECT_FALSE(feeder_.daemon_gone(now_ms));
    const int64_t from_ms = now_ms;
    add(1);
    add(2);
    for (send(); !feeder_.daemon_gone(now_ms); after(100))
        ASSERT_LT(now_ms - from_ms, 5'000);
    EXPECT_EQ(now_ms - from_ms, 5'000);
    EXPECT_TRUE(verdict(1));
    EXPECT_TRUE(verdict(2));
    EXPECT_FALSE(feeder_.daemon_gone(now_ms));
    EXPECT_EQ(feeder_.counts().unanswered, 0u);
}

TEST_F(Feeder, ShowsTheNextDaemonNothingThatMayHaveEndedTheLast) {
    start();
    add(1);
    add(2);
    send();
    feeder_.daemon_ended(now_ms);
    EXPECT_EQ(feeder_.counts().unanswered, 2u);
    add(3);
    EXPECT_EQ(send(), ports{3});
    EXPECT_TRUE(verdict(3));
}

TEST_F(Feeder, ALostLinkIsNoGoneDaemon) {
    start();
    for (const uint16_t port : ports{1, 2, 3})
        add(port);
    send();
    for (int i = 0; i < 300; ++i) { // a minute
        now_ms += 200;
        ASSERT_TRUE(feeder_.silent(now_ms));
        feeder_.link_lost(now_ms);
        ASSERT_FALSE(feeder_.daemon_gone(now_ms));
    }
    for (int i = 0; i < 100; ++i) // the daemon takes its time
        ASSERT_EQ(after(200), ports{1});
    EXPECT_FALSE(feeder_.daemon_gone(now_ms));
    EXPECT_TRUE(verdict(1));
    EXPECT_EQ(after(200), (ports{2, 3}));
    EXPECT_TRUE(verdict(2));
    EXPECT_TRUE(verdict(3));
    EXPECT_EQ(feeder_.counts().unanswered, 0u);

    add(4);
    send();
    feeder_.link_lost(now_ms += 200);
    EXPECT_FALSE(feeder_.daemon_gone(now_ms + 29'999));
    EXPECT_TRUE(feeder_.daemon_gone(now_ms + 30'000));
}

TEST_F(Feeder, KeepsItsBounds) {
    for (const auto &[timer_ms, most] : std::map<int64_t, size_t>{{8, 400}, {2, 256}, {1, 128}}) {
        feeder_ = feeder(timer_ms);
        now_ms = 8000;
        start();
        size_t frames = 0;
        for (; feeder_.has_room(now_ms); ++frames) {
            add(1);
            send();
        }
        EXPECT_EQ(frames, most);
        while (feeder_.waiting())
            ASSERT_TRUE(verdict(1));
        for (frames = 0; feeder_.has_room(now_ms) && frames < most; ++frames, ++now_ms) {
            add(1);
            send();
        }
        EXPECT_EQ(frames, 4u * static_cast<size_t>(timer_ms)) << "one each millisecond";
        while (feeder_.waiting())
            ASSERT_TRUE(verdict(1));
    }

    size_t bytes = 0;
    for (; feeder_.has_room(now_ms); bytes += 65'535) {
        add(1, 65'535);
        send();
    }
    EXPECT_GT(bytes, feeder::MAX_BYTES / 2);
    EXPECT_LE(bytes, feeder::MAX_BYTES);
}

} // namespace
