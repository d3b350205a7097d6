// The present as the watch socket tells it, and what `top` makes of it: sums that stay right while
// flows change names, end, and come again; lists that hold still under the finger; any screen.
#include "avwatch/present/present.h"
#include "avwatch/top/model.h"

#include <algorithm>
#include <clocale>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace avwatch;

constexpr char TV[] = "02:00:00:00:00:01";
constexpr char LAPTOP[] = "02:00:00:00:00:02";

flow_record flow(const std::string &id, const std::string &mac, const std::string &application,
                 uint64_t down = 0) {
    flow_record told;
    told.id = id;
    told.client = "192.0.2.1";
    told.client_mac = mac;
    told.server = "198.51.100.7";
    told.server_port = 443;
    told.protocol = "TCP";
    told.application = application;
    told.verdict = "allow";
    told.down = {down / 1'000, down};
    return told;
}

client_record client(const std::string &mac, const std::string &address) {
    client_record said;
    said.client_mac = mac;
    said.addresses = {address};
    return said;
}

struct AvwatchPresent : testing::Test {
    AvwatchPresent() { greet("boot"); }

    void greet(const std::string &boot) {
        greeting_record greeting;
        greeting.boot = boot;
        greeting.counts = "wire";
        now->connected(greeting);
    }
    void begin(names_kept names) {
        now.emplace(client_aliases{{"tv", TV}}, names, 1'000);
        greet("boot");
    }
    void take(const flow_record &told) { now->take(told, now_ms); }
    void tick() { now->tick(now_ms += 1'000); }
    uint64_t down(const flow_choice &chosen = {}) const {
        const flow_sum *sum = now->sum(chosen);
        return sum != nullptr ? sum->down.bytes : 0;
    }
    uint64_t open(const flow_choice &chosen = {}) const {
        const flow_sum *sum = now->sum(chosen);
        return sum != nullptr ? sum->flows : 0;
    }

    std::optional<present> now{std::in_place, client_aliases{{"tv", TV}}, names_kept::full, 1'000};
    int64_t now_ms = 10'000;
};

TEST_F(AvwatchPresent, SumsFollowFlowsThatChangeAndEnd) {
    now->listed();
    take(flow("1", TV, "", 1'000));
    take(flow("2", TV, "tube", 500));
    EXPECT_EQ(down({TV, ""}), 1'000u);
    take(flow("1", TV, "tube", 3'000)); // it has a name now
    EXPECT_EQ(down({TV, ""}), 0u);
    EXPECT_EQ(open({{}, ""}), 0u);
    EXPECT_EQ(down({{}, "tube"}), 3'500u);
    count_record count = flow("1", TV, "tube", 5'000);
    now->take(count, now_ms);
    count.down = {0, 100}; // who tells is mistaken: sums don't fall
    now->take(count, now_ms);
    flow_record ended = flow("1", TV, "tube", 6'000);
    ended.ended = "fin";
    take(ended);
    take(ended);
    EXPECT_EQ(open({TV, "tube"}), 1u);
    EXPECT_EQ(down({TV, {}}), 5'000u + 500 + 5'900);
    EXPECT_EQ(down(), down({TV, {}}));
    for (int i = 0; i < 11; ++i)
        tick();
    EXPECT_EQ(now->flow(present::id_of("1")), nullptr);
    EXPECT_EQ(down({{}, "tube"}), down());

    sum_record missed;
    missed.client_mac = LAPTOP;
    missed.application = "mail";
    missed.down = {1, 70};
    now->take(missed);
    EXPECT_EQ(down({LAPTOP, "mail"}), 70u);
    EXPECT_EQ(open(), 1u);
}

TEST_F(AvwatchPresent, RatesAreOfNowAndKnowWhenNobodyTells) {
    take(flow("1", TV, "tube", 9'000'000)); // used before anybody looked
    now->listed();
    tick();
    EXPECT_EQ(now->sum()->now.down, 0);
    take(flow("1", TV, "tube", 9'003'000));
    EXPECT_FLOAT_EQ(now->rates_of(*now->flow(present::id_of("1")), now_ms).down, 3'000);
    tick();
    EXPECT_FLOAT_EQ(now->sum({TV, {}})->now.down, 1'000); // of three seconds
    EXPECT_FLOAT_EQ(now->course({{}, "tube"}).back().down, 3'000);
    now->disconnected();
    tick();
    tick();
    tick();
    EXPECT_EQ(now->sum()->now.down, 0);
    EXPECT_EQ(now->rates_of(*now->flow(present::id_of("1")), now_ms).down, 0);
    std::vector<traffic_rates> course = now->course();
    ASSERT_EQ(course.size(), COURSE_SECONDS);
    EXPECT_EQ(course.back(), UNKNOWN_RATES);
    EXPECT_FLOAT_EQ(course[COURSE_SECONDS - 4].down, 3'000);
    greet("boot");
    take(flow("1", TV, "tube", 99'000'000)); // meanwhile
    now->listed();
    tick();
    EXPECT_EQ(now->sum()->now.down, 0);
    EXPECT_EQ(down(), 99'000'000u);
    now->tick(now_ms += 10'000); // stopped for so long
    course = now->course();
    EXPECT_EQ(std::ranges::count(course, traffic_rates(), {}), 12);
}

TEST_F(AvwatchPresent, AnotherConnectionTellsWhatThereIs) {
    take(flow("1", TV, "tube", 1'000));
    take(flow("2", TV, "tube", 1'000));
    now->listed();
    now_ms += 5'000;
    now->disconnected();
    greet("boot");
    take(flow("2", TV, "tube", 1'500));
    now->listed();
    EXPECT_EQ(now->flow(present::id_of("1")), nullptr); // it ended meanwhile
    EXPECT_EQ(open(), 1u);
    EXPECT_EQ(down(), 2'500u);
    greet("another boot"); // the same id is another flow
    take(flow("2", TV, "tube", 300));
    now->listed();
    EXPECT_EQ(open({TV, "tube"}), 1u);
    EXPECT_EQ(down(), 2'800u);
    greet("another boot");
    now->listed(); // nothing there
    EXPECT_EQ(now->flow_count(), 0u);
}

TEST_F(AvwatchPresent, AFlowBelongsToWhoIsKnownByItsAddress) {
    now->listed();
    take(flow("1", "", "tube", 1'000));
    EXPECT_EQ(down({"192.0.2.1", {}}), 1'000u);
    now->take_clients({client(TV, "192.0.2.1")});
    EXPECT_EQ(down({"192.0.2.1", {}}), 0u);
    EXPECT_EQ(down({TV, "tube"}), 1'000u);
    EXPECT_EQ(now->clients_of("tube").size(), 2u); // one of them goes
    for (int i = 0; i <= 601; ++i)
        tick();
    EXPECT_EQ(now->clients_of("tube").size(), 1u);
    EXPECT_EQ(now->sum({{}, "tube"})->pairs, 1u);
}

TEST_F(AvwatchPresent, DenialsAreThoseThereWereAndThoseThatCome) {
    begin(names_kept::domain);
    flow_record denied = flow("1", TV, "www.shop.example.co.uk");
    denied.verdict = "deny";
    denied.why.named_by = "dns";
    denied.why.text = "www.shop.example.co.uk, named by DNS; by the web policy, black list";
    denied.last_us = 7;
    take(denied);
    now->listed();
    event_record event;
    event.what = "denied";
    event.us = 9;
    event.flow = denied;
    for (size_t i = 0; i < present::DENIALS_MAX; ++i)
        now->take(event);
    ASSERT_EQ(now->denials().size(), present::DENIALS_MAX);
    EXPECT_EQ(now->denials().back().number, present::DENIALS_MAX + 1);
    EXPECT_EQ(now->denials().back().flow.record().why.text,
              "example.co.uk, named by DNS; by the web policy, black list");
    greet("boot");
    take(denied);
    now->listed(); // known already
    EXPECT_EQ(now->denials().back().number, present::DENIALS_MAX + 1);
    EXPECT_EQ(open({TV, "example.co.uk"}), 1u);
}

TEST_F(AvwatchPresent, WhoeverSpeaksItIsBounded) {
    now->listed();
    for (size_t i = 0; i < present::FLOWS_MAX + 100; ++i)
        take(flow(std::to_string(i), TV, std::string(900, 'x') + std::to_string(i), 1'000));
    EXPECT_EQ(now->flow_count(), present::FLOWS_MAX);
    EXPECT_EQ(now->left_out(), 100u);
    EXPECT_LT(now->applications_used().size(), flow_sums::SUMS_MAX);
    EXPECT_EQ(down(), 1'000 * present::FLOWS_MAX);
    flow_record ended = flow("0", TV, "", 1'000);
    ended.ended = "fin";
    take(ended);
    take(flow("one more", LAPTOP, "", 1'000)); // in its place
    EXPECT_NE(now->flow(present::id_of("one more")), nullptr);
    now->tick(now_ms += 400'000); // nothing is told of any: their ends were missed
    for (int i = 0; i < 10; ++i)
        tick();
    EXPECT_EQ(now->flow_count(), 0u);
    EXPECT_EQ(open(), 0u);
    now->tick(now_ms += 620'000);
    EXPECT_EQ(now->applications_used().size(), 0u);
}

struct AvwatchTop : AvwatchPresent {
    AvwatchTop() {
        setlocale(LC_CTYPE, "C.UTF-8");
        now->listed();
        take(flow("f1", TV, "tube"));
        take(flow("f2", TV, "mail"));
        take(flow("f3", LAPTOP, "tube"));
        now->take_clients({client(TV, "192.0.2.1"), client(LAPTOP, "192.0.2.2")});
    }
    // So many bytes of each come within a second.
    void grow(uint64_t first, uint64_t second, uint64_t third) {
        take(flow("f1", TV, "tube", now->flow(present::id_of("f1"))->down.bytes + first));
        take(flow("f2", TV, "mail", now->flow(present::id_of("f2"))->down.bytes + second));
        take(flow("f3", LAPTOP, "tube", now->flow(present::id_of("f3"))->down.bytes + third));
        tick();
    }
    void press(const std::string &letters) {
        for (const char each : letters) {
            top.press({key_kind::character, static_cast<char32_t>(each)});
            draw();
        }
    }
    void press(key_kind kind) {
        top.press({kind});
        draw();
    }
    std::vector<screen_line> draw(screen_size size = {12, 80}) {
        return lines = top.draw(size, now_ms, trouble);
    }
    // The first words of the list's lines.
    std::vector<std::string> rows() {
        draw();
        std::vector<std::string> words;
        for (size_t i = 3; i + 1 < lines.size() && lines[i].text[1] != ' '; ++i)
            words.push_back(lines[i].text.substr(1, lines[i].text.find(' ', 1) - 1));
        return words;
    }
    bool shows(const std::string &text) {
        draw();
        return std::ranges::any_of(lines, [&](const screen_line &line) {
            return line.text.find(text) != std::string::npos;
        });
    }

    std::string trouble;
    top_model top{*now, true};
    std::vector<screen_line> lines;
};

using words = std::vector<std::string>;

TEST_F(AvwatchTop, ListsByRateAndByWhatIsAsked) {
    grow(3'000, 600, 9'000);
    EXPECT_EQ(rows(), (words{LAPTOP, "tv"}));
    press("n");
    EXPECT_EQ(rows(), (words{LAPTOP, "tv"}));
    press("a");
    EXPECT_EQ(rows(), (words{"mail", "tube"})); // the order stays
    press("r");
    EXPECT_EQ(rows(), (words{"tube", "mail"}));
    EXPECT_TRUE(shows("4.0 kB/s"));
    EXPECT_TRUE(shows("avwatch top: applications by rate"));
    press("f/");
    press("MAI");
    EXPECT_TRUE(shows("/MAI_"));
    EXPECT_EQ(rows().size(), 1u);
    press(key_kind::enter);
    EXPECT_TRUE(shows("flows  / MAI"));
    press(key_kind::escape);
    EXPECT_EQ(rows().size(), 3u);
    press("?");
    EXPECT_TRUE(shows("Order    r rate"));
    EXPECT_TRUE(top.press({key_kind::character, U'q'})); // ends the help
    EXPECT_FALSE(top.press({key_kind::character, U'q'}));
}

TEST_F(AvwatchTop, LeadsFromAClientToTheReason) {
    flow_record denied = flow("f2", TV, "mail");
    denied.verdict = "deny";
    denied.why.text = "mail, named by DNS; by rule 3 of UTP 1 " + std::string(150, 'x') + " end";
    take(denied);
    grow(3'000, 0, 9'000);
    take(denied);
    press(key_kind::down);
    press(key_kind::enter);
    EXPECT_EQ(rows(), (words{"tube", "mail"}));
    EXPECT_TRUE(shows("clients > tv"));
    press("n");
    press(key_kind::enter);
    EXPECT_TRUE(shows("clients > tv > mail"));
    EXPECT_EQ(rows(), words{"tv"});
    EXPECT_EQ(lines[3].style, line_style::chosen);
    press(key_kind::enter);
    EXPECT_TRUE(shows("decided by"));
    ASSERT_EQ(top.take_question().value_or(flow_record()).id, present::id_of("f2"));
    EXPECT_FALSE(top.take_question());
    top.take_answer(present::id_of("f1"), {{"without it", "another flow's"}});
    top.take_answer(present::id_of("f2"), {{"without it", "allowed by\nrule 4"}});
    press(key_kind::end);
    EXPECT_TRUE(shows("without it  allowed by?rule 4"));
    EXPECT_FALSE(shows("another flow's"));
    denied.verdict = "allow";
    take(denied);
    draw();
    EXPECT_TRUE(top.take_question());
    press(key_kind::home);
    press(key_kind::page_down);
    EXPECT_TRUE(shows("xx end")); // on a line of its own
    denied.ended = "fin";
    take(denied);
    for (int i = 0; i < 11; ++i)
        tick();
    press(key_kind::end);
    press(key_kind::page_down);
    EXPECT_TRUE(shows("It has ended"));
    press(key_kind::left);
    press(key_kind::backspace);
    press(key_kind::escape);
    EXPECT_EQ(rows().front(), LAPTOP);
    press("a");
    press(key_kind::right);
    EXPECT_TRUE(shows("applications > "));
}

// Who has moved to a row has that row, wherever it goes; the top is the top.
TEST_F(AvwatchTop, ThePlaceGoesWithItsRow) {
    grow(3'000, 0, 9'000);
    draw();
    EXPECT_EQ(lines[3].style, line_style::chosen);
    grow(90'000, 0, 0);
    EXPECT_EQ(rows(), (words{"tv", LAPTOP}));
    EXPECT_EQ(lines[3].style, line_style::chosen);
    press(key_kind::down);
    grow(0, 0, 900'000);
    EXPECT_EQ(rows(), (words{LAPTOP, "tv"}));
    EXPECT_EQ(lines[3].style, line_style::chosen);
    take(flow("f1", TV, "tube", 9'000'000)); // a list holds still until it is made anew
    press("t");
    EXPECT_EQ(rows(), (words{"tv", LAPTOP}));
    take(flow("f3", LAPTOP, "tube", 90'000'000));
    press(key_kind::home);
    EXPECT_EQ(rows(), (words{"tv", LAPTOP}));
    EXPECT_TRUE(shows("90.0 MB"));
    tick();
    EXPECT_EQ(rows(), (words{LAPTOP, "tv"}));
    press("r");
    grow(90'000'000, 0, 0); // between what was drawn and the key
    top.press({key_kind::enter});
    EXPECT_TRUE(shows("clients > " + std::string(LAPTOP)));
}

TEST_F(AvwatchTop, FitsAnyScreenWithAnyName) {
    for (int i = 0; i < 40; ++i)
        take(flow("w" + std::to_string(i), TV,
                  "\u05d0\u05d1 \u6f22\u5b57\u6f22\u5b57" + std::to_string(i) +
                      "\x1b[2J\n\xff \u202e\U0001f600",
                  1'000));
    tick();
    for (const char view : {'c', 'a', 'f', '?', 'f'}) {
        press(std::string(1, view));
        for (size_t height = 0; height < 30; ++height) {
            for (const size_t width : {0u, 1u, 2u, 7u, 13u, 40u, 79u, 80u, 200u}) {
                const std::vector<screen_line> drawn = draw({height, width});
                ASSERT_EQ(drawn.size(), height);
                for (const screen_line &line : drawn) {
                    size_t columns = 0;
                    for (std::string_view rest = line.text; !rest.empty();) {
                        const char32_t character = take_character(rest);
                        ASSERT_TRUE(character >= U' ' && character != 0x7F && character != 0x202E);
                        columns += columns_of_character(character);
                    }
                    ASSERT_LE(columns, width) << line.text;
                }
            }
        }
        press(key_kind::end);
        press(key_kind::enter);
    }
    press("a");
    press(key_kind::end);
    draw({12, 80});
    EXPECT_EQ(std::ranges::count(lines, line_style::chosen, &screen_line::style), 1);
    EXPECT_TRUE(lines[1].text.ends_with("wants 80 x 24"));
    EXPECT_EQ(draw({24, 80})[1].text.find("wants"), std::string::npos);
    trouble = "avcore has ended the connection";
    press("/ma"); // it is said first, and the filter elsewhere
    EXPECT_TRUE(shows("has ended the connection; tried again"));
    EXPECT_TRUE(shows("  /ma_"));
    press(key_kind::escape);
}

} // namespace
