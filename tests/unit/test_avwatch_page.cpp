// The page: who may look and who may not, links that are good once, and rows of the present in
// windows.
#include "avwatch/base/failure.h"
#include "avwatch/page/page.h"
#include "avwatch/page/tickets.h"
#include "shared/json_text.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

using namespace avwatch;
using nlohmann::json;

constexpr char TOKEN[] = "a token of the administrator's";
constexpr int64_t NOW_S = 1'764'150'000;

flow_record flow(int number, uint64_t down_bytes) {
    flow_record made;
    made.id = 'f' + std::to_string(number);
    made.client = "192.0.2." + std::to_string(number % 3);
    made.server = "198.51.100.7";
    made.protocol = "TCP";
    made.application = number % 2 != 0 ? "<script>alert(1)</script>" : "";
    made.verdict = "allow";
    made.down = {1, down_bytes};
    made.begun_us = made.last_us = 1;
    return made;
}

struct AvwatchPage : testing::Test {
    page_request asking(const std::string &path,
                        std::map<std::string, std::string> arguments = {}) const {
        page_request asked;
        asked.path = path;
        asked.arguments = std::move(arguments);
        asked.host = "localhost:8080";
        asked.is_from_loopback = true;
        return asked;
    }
    page_request from_elsewhere(const std::string &path) const {
        page_request asked = asking(path);
        asked.is_from_loopback = false;
        asked.host = "192.0.2.1:8080";
        return asked;
    }
    json rows(std::map<std::string, std::string> arguments) {
        const page_reply reply = shown.answer(asking("/api/rows", std::move(arguments)));
        EXPECT_EQ(reply.status, 200U) << reply.body;
        return read_json(reply.body);
    }

    json looks(std::map<std::string, std::string> arguments) {
        const page_reply reply = shown.answer(asking("/api/live", std::move(arguments)));
        return read_json(reply.events->next()->substr(std::string_view("data: ").size()));
    }

    present now{{}, names_kept::full, 1'000};
    page shown{{{"ap.example"}, TOKEN, false},
               {now, [] { return "gone"; }, [] { return "jorn_avcore_up 1\n"; }, "/none/at/all"},
               std::chrono::hours(1)};
};

using request_text = std::string page_request::*;
constexpr request_text HOST = &page_request::host;
constexpr request_text ORIGIN = &page_request::origin;
constexpr request_text BEARER = &page_request::authorization;
constexpr request_text COOKIE = &page_request::cookie;
constexpr request_text SITE = &page_request::fetch_site;
constexpr request_text MODE = &page_request::fetch_mode;
constexpr request_text DEST = &page_request::fetch_dest;

std::string pass_cookie(int64_t age_s = 0, const std::string &token = TOKEN) {
    return "jorn_page=" + make_pass(token, time(nullptr) - age_s);
}

const struct {
    const char *what;
    bool is_from_loopback;
    std::vector<std::pair<request_text, std::string>> headers;
    unsigned status;
    unsigned data_status = 0; // of what isn't the page itself, where that is another one
} WHO_ASKS[] = {
    {"this machine", true, {}, 200},
    {"a name of this machine's", true, {{HOST, "AP.example.:8080"}}, 200},
    {"IPv6", true, {{HOST, "[::1]:8080"}}, 200},
    {"a name that is somebody else's", true, {{HOST, "evil.example"}}, 421},
    {"one that ends alike", true, {{HOST, "evil.ap.example"}}, 421},
    {"one that looks like an address", true, {{HOST, "127.0.0.1.evil.example"}}, 421},
    {"no name", true, {{HOST, ""}}, 421},
    {"its own page", true, {{ORIGIN, "http://localhost:8080"}, {SITE, "same-origin"}}, 200},
    {"another one's page", true, {{ORIGIN, "http://evil.example"}}, 403},
    {"a page of another port", true, {{ORIGIN, "http://localhost:9"}}, 403},
    {"a page that hides where it is", true, {{ORIGIN, "null"}}, 403},
    {"a script of another one's page", true, {{SITE, "cross-site"}, {MODE, "no-cors"}}, 403},
    {"a click there",
     true,
     {{SITE, "cross-site"}, {MODE, "navigate"}, {DEST, "document"}},
     200,
     403},
    {"a frame there", true, {{SITE, "same-site"}, {MODE, "navigate"}, {DEST, "iframe"}}, 403},
    {"elsewhere", false, {}, 401},
    {"the token", false, {{BEARER, std::string("bearer ") + TOKEN}}, 200},
    {"half of it", false, {{BEARER, "Bearer a token"}}, 401},
    {"none of it", false, {{BEARER, "Bearer "}}, 401},
    {"the cookie", false, {{COOKIE, "a=b; " + pass_cookie()}}, 200},
    {"an old one", false, {{COOKIE, pass_cookie(PASS_S + 1)}}, 401},
    {"one that was made to last", false, {{COOKIE, "jorn_page=9" + pass_cookie().substr(10)}}, 401},
    {"a ticket for it", false, {{COOKIE, "jorn_page=" + make_ticket(TOKEN, time(nullptr))}}, 401},
    {"the token for a cookie", false, {{COOKIE, std::string("jorn_page=") + TOKEN}}, 401},
    {"a cookie that ends alike", false, {{COOKIE, 'x' + pass_cookie()}}, 401},
    {"the cookie, for another one's page",
     false,
     {{COOKIE, pass_cookie()}, {ORIGIN, "http://evil.example"}},
     403},
};

TEST_F(AvwatchPage, OnlyWhoMayLookDoes) {
    for (const auto &each : WHO_ASKS) {
        for (const std::string path : {"/", "/metrics", "/api/rows"}) {
            page_request asked = each.is_from_loopback ? asking(path) : from_elsewhere(path);
            for (const auto &[header, text] : each.headers)
                asked.*header = text;
            const unsigned status =
                path != "/" && each.data_status != 0 ? each.data_status : each.status;
            const page_reply reply = shown.answer(asked);
            EXPECT_EQ(reply.status, status) << each.what << ' ' << path;
            EXPECT_TRUE(status == 200 || reply.constant_body.empty()) << each.what;
        }
    }
    page without_token({{}, "", false}, {now, nullptr, nullptr, ""});
    page_request asked = from_elsewhere("/");
    asked.authorization = "Bearer ";
    asked.cookie = pass_cookie(0, "");
    EXPECT_EQ(without_token.answer(asked).status, 401U);
}

TEST_F(AvwatchPage, AnswersTakeAShareOfTheTime) {
    using namespace std::chrono_literals;
    work_share share(100ms);
    const auto begun = work_share::clock::now();
    EXPECT_FALSE(share.is_used_up(begun));
    share.use(200ms);
    EXPECT_TRUE(share.is_used_up(begun));
    EXPECT_TRUE(share.is_used_up(begun + 390ms));
    EXPECT_FALSE(share.is_used_up(begun + 500ms));
    page busy({}, {now, nullptr, [] { return ""; }, "/none/at/all"}, 0ms);
    for (const char *path : {"/api/rows", "/api/live", "/api/course", "/api/flow", "/api/history"})
        EXPECT_EQ(busy.answer(asking(path)).status, 503U) << path;
    EXPECT_EQ(busy.answer(asking("/metrics")).status, 200U);
}

TEST_F(AvwatchPage, ALinkIsGoodOnceAndNotForLong) {
    ticket_counter counter;
    const std::string ticket = make_ticket(TOKEN, NOW_S);
    EXPECT_FALSE(counter.take(ticket, "the token of another one", NOW_S));
    EXPECT_FALSE(counter.take('9' + ticket, TOKEN, NOW_S)); // longer than it was given for
    EXPECT_FALSE(counter.take(ticket, TOKEN, NOW_S + TICKET_S + 1));
    EXPECT_FALSE(counter.take(ticket, TOKEN, NOW_S - 1)); // a clock that went back
    EXPECT_TRUE(counter.take(ticket, TOKEN, NOW_S + TICKET_S));
    EXPECT_FALSE(counter.take(ticket, TOKEN, NOW_S + TICKET_S));
    for (const char *wrong : {"", "-", "1-2-3", "--"})
        EXPECT_FALSE(counter.take(wrong, TOKEN, NOW_S)) << wrong;

    page_request asked = from_elsewhere("/enter");
    asked.arguments["ticket"] = make_ticket(TOKEN, time(nullptr));
    page_request elsewhere = asked;
    elsewhere.host = "evil.example";
    EXPECT_EQ(shown.answer(elsewhere).status, 421U);
    page_request looking = asked; // whether the link leads anywhere, as a messenger may
    looking.is_head = true;
    EXPECT_EQ(shown.answer(looking).status, 405U);
    const page_reply entered = shown.answer(asked);
    EXPECT_EQ(entered.status, 200U);
    const auto cookie =
        std::ranges::find(entered.headers, std::string_view("Set-Cookie"),
                          [](const auto &header) { return std::string_view(header.first); });
    ASSERT_NE(cookie, entered.headers.end());
    EXPECT_NE(cookie->second.find("; HttpOnly; SameSite=Strict"), std::string::npos);
    EXPECT_EQ(shown.answer(asked).status, 403U);
}

TEST(AvwatchToken, IsMadeOnceForItsOwner) {
    const std::string folder = std::filesystem::temp_directory_path() / "avwatch_token";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    const std::string file = folder + "/token";
    EXPECT_THROW(read_token(file), refused);
    const std::string token = read_or_make_token(file);
    EXPECT_EQ(token.size(), 64U);
    EXPECT_EQ(read_or_make_token(file), token);
    chmod(file.c_str(), 0644);
    EXPECT_THROW(read_token(file), refused); // others may read it
    chmod(file.c_str(), 0600);
    for (const char *text : {"", "short\n", "two words that are long enough\n"}) {
        std::ofstream(file) << text;
        EXPECT_THROW(read_token(file), refused) << text;
    }
    std::filesystem::remove(file);
    mkfifo(file.c_str(), 0600);
    EXPECT_THROW(read_or_make_token(file), refused); // and doesn't wait for a writer
    std::filesystem::remove_all(folder);
}

TEST_F(AvwatchPage, RowsComeInWindows) {
    constexpr int count = 10'000;
    now.connected({});
    for (int i = 0; i < count; ++i)
        now.take(flow(i, static_cast<uint64_t>(i)), 1);
    now.listed();
    const json first = rows({{"table", "flows"}, {"order", "bytes"}, {"rows", "3"}});
    EXPECT_EQ(first["total"], count);
    ASSERT_EQ(first["rows"].size(), 3U);
    EXPECT_EQ(first["rows"][0]["id"], present::id_of("f9999"));
    EXPECT_EQ(first["rows"][2]["id"], present::id_of("f9997"));
    const json last = rows({{"table", "flows"}, {"order", "bytes"}, {"first", "9999"}});
    ASSERT_EQ(last["rows"].size(), 1U);
    EXPECT_EQ(last["rows"][0]["id"], present::id_of("f0"));
    EXPECT_EQ(rows({{"table", "flows"}, {"order", "bytes"}, {"reversed", "1"}})["rows"][0]["id"],
              present::id_of("f0"));
    const std::string most = std::to_string(SIZE_MAX);
    EXPECT_EQ(rows({{"table", "flows"}, {"first", most}, {"rows", most}})["rows"], json::array());
    EXPECT_EQ(rows({{"table", "flows"}, {"rows", "10000"}})["rows"].size(), 200U);
    EXPECT_EQ(rows({{"table", "flows"}, {"part", "SCRIPT"}})["total"], count / 2);
    EXPECT_EQ(rows({{"table", "flows"}, {"application", ""}})["total"], count / 2);
    EXPECT_EQ(rows({{"table", "flows"}, {"verdict", "deny"}})["total"], 0);
    EXPECT_EQ(rows({{"table", "clients"}})["total"], 3);
    EXPECT_EQ(rows({{"table", "clients"}, {"application", ""}})["total"], 3);
    EXPECT_EQ(rows({{"table", "applications"}, {"client", "192.0.2.1"}})["total"], 2);
    EXPECT_EQ(rows({{"table", "applications"}, {"client", "nobody"}})["total"], 0);
    for (const auto &[argument, text] :
         std::map<std::string, std::string>{{"table", "all"},
                                            {"order", "x"},
                                            {"first", "-1"},
                                            {"rows", "1x"},
                                            {"part", std::string(9'999, 'x')}})
        EXPECT_EQ(shown.answer(asking("/api/rows", {{argument, text}})).status, 400U) << argument;
    EXPECT_EQ(shown.answer(asking("/api/history")).status, 503U); // there is no file
    const auto whole = [&](const std::string &id) {
        return read_json(shown.answer(asking("/api/flow", {{"id", id}})).body);
    };
    EXPECT_EQ(whole(present::id_of("f7"))["client"], "192.0.2.1");
    for (const char *none : {"", "f7", "0123456789abcdef", "-1", "0x1", "ffffffffffffffffffff"})
        EXPECT_EQ(whole(none), nullptr) << none;
    EXPECT_EQ(shown.answer(asking("/../etc/passwd")).status, 404U);
}

TEST_F(AvwatchPage, HostileNamesAreCut) {
    const auto named = [](int number, std::string name) {
        flow_record made = flow(number, 1);
        made.client_mac = "02:00:00:00:00:01";
        made.host = made.why.text = made.application = std::move(name);
        return made;
    };
    now.connected({});
    for (int i = 0; i < 200; ++i)
        now.take(named(i, std::to_string(i) + std::string(1'000, '\x01') + "\u00e9"), 1);
    now.listed();
    const page_reply reply =
        shown.answer(asking("/api/rows", {{"table", "flows"}, {"rows", "200"}}));
    EXPECT_LT(reply.body.size(), 600'000U);
    EXPECT_EQ(read_json(reply.body)["rows"].size(), 200U);
    const json names = rows({{"table", "applications"}, {"order", "name"}, {"rows", "1"}});
    EXPECT_EQ(names["rows"][0]["application"].get<std::string>().size(), 1'003U);
}

TEST_F(AvwatchPage, NamesComeInTheirOrderInAnyCase) {
    now.connected({});
    for (const char *name : {"b", "A", "C"}) {
        flow_record made = flow(*name, 1);
        made.application = name;
        now.take(made, 1);
    }
    now.listed();
    for (const char *table : {"applications", "flows"}) {
        const json told = rows({{"table", table}, {"order", "name"}});
        std::string order;
        for (const json &row : told["rows"])
            order += row["application"];
        EXPECT_EQ(order, "AbC") << table;
    }
}

TEST_F(AvwatchPage, SaysWhoDecides) {
    const gate_state deciding = {{{"there", true}, {"fail", "closed"}, {"beat_age_ms", 100}}};
    const gate_state left_alone = {{{"there", true}, {"fail", "closed"}, {"beat_age_ms", 2'500}}};
    const auto gate = [&] { return looks({})["gate"]; };
    now.connected({});
    EXPECT_EQ(gate(), "");
    now.take(deciding);
    EXPECT_EQ(gate(), "deciding");
    now.take(event_record{.what = "gate", .us = 7, .flow = {}, .state = "open", .interface = ""});
    now.take(deciding); // which the gate still thinks
    EXPECT_EQ(gate(), "open");
    for (int64_t ms = 1'000; ms < 6'000; ms += 1'000)
        now.tick(ms);
    now.take(left_alone);
    EXPECT_EQ(gate(), "closed");
    for (const gate_state &none :
         {gate_state{nullptr}, gate_state{{{"there", false}}}, gate_state{json::array({"fail"})}}) {
        now.take(none);
        EXPECT_EQ(gate(), "");
    }
    now.take(event_record{.what = "daemon", .us = 8, .flow = {}, .state = "gone", .interface = ""});
    EXPECT_EQ(looks({{"table", "denials"}})["daemon"], "gone");
    const json events = rows({{"table", "events"}});
    ASSERT_EQ(events["total"], 2);
    EXPECT_EQ(events["rows"][0]["state"], "gone"); // the latest first
    EXPECT_EQ(rows({{"table", "events"}, {"part", "GATE"}})["total"], 1);
    now.disconnected();
    EXPECT_EQ(looks({})["daemon"], "");
}

TEST_F(AvwatchPage, WhatManyLookAtIsMadeOnce) {
    const auto look = [&](const char *table) {
        return shown.answer(asking("/api/live", {{"table", table}})).events;
    };
    const auto one = look("flows"), same = look("flows"), other = look("clients");
    EXPECT_EQ(one->next(), same->next());
    EXPECT_NE(one->next(), other->next());
}

} // namespace
