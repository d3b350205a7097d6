// What avcore plays of web filtering: categories, the agent's late answers, verdicts by flow key,
// safe search.
#include "avcore/flows/flow_table.h"
#include "avcore/settings/config.h"
#include "avcore/web/categories.h"
#include "avcore/web/domain_lists.h"
#include "avcore/web/domain_table.h"
#include "avcore/web/safe_search.h"
#include "avcore/web/url_agent.h"

#include "core/text/text.h"

#include <arpa/inet.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

using namespace avcore;

TEST(AvcoreCategories, TheLongestSuffixInWholeLabelsCounts) {
    const category_list list = category_list::parse(
        "# ids\nvideo.example 45\r\n\tKids.Video.example 42 45 # two\n\norg 7", "f");
    const struct {
        const char *domain;
        int32_t status, first, count;
    } rows[] = {
        {"video.example", 0, 45, 1},
        {"WWW.video.EXAMPLE", 0, 45, 1},
        {"a.b.kids.video.example", 0, 42, 2},
        {"myvideo.example", 5, 0, 0},
        {"example", 5, 0, 0},
        {"a.org", 0, 7, 1},
        {"", 5, 0, 0},
        {"org.", 5, 0, 0},
        {"...", 5, 0, 0},
    };
    for (const auto &row : rows) {
        const urlf_answer answer = list.answer(row.domain);
        EXPECT_EQ(answer.status, row.status) << row.domain;
        EXPECT_EQ(answer.categories[0], row.first) << row.domain;
        EXPECT_EQ(answer.category_count, row.count) << row.domain;
    }
    for (const char *line : {"a 6 real ESTATE 45", "a 6,Real Estate , 45"}) {
        const urlf_answer answer = category_list::parse(line, "f").answer("a");
        EXPECT_EQ(std::vector(answer.categories, answer.categories + answer.category_count),
                  (std::vector<int32_t>{6, 1, 45}))
            << line;
    }
    for (const char *line :
         {"a.example", "a.example Real Estat", "a.example Real, Estate", "a.example Uncategorized",
          "a.example 0", "a.example 65536", "a.example -1", "a.example 1x", ".a 1", "a/b 1",
          "a 1 2 3 4 5 6", "b 1"})
        EXPECT_THROW(category_list::parse(std::string("b 1\n") + line, "f"), config_error) << line;
}

class AvcoreLists : public testing::Test {
protected:
    ~AvcoreLists() override { std::filesystem::remove_all(folder); }

    // Its path.
    std::string file(const std::string &name, const std::string &text) const {
        std::ofstream(folder + name, std::ios::binary) << text;
        return folder + name;
    }
    static std::vector<int32_t> categories(const category_list &list, const char *domain) {
        const urlf_answer answer = list.answer(domain);
        return {answer.categories, answer.categories + answer.category_count};
    }

    std::string folder = [] {
        std::string made = testing::TempDir() + "avcore_lists.XXXXXX";
        return std::string(mkdtemp(made.data())) + '/';
    }();
};

TEST_F(AvcoreLists, TakeWhatIsPublishedAndCountTheRest) {
    const auto last_in = [this](const char *line, unsigned first_bad_line) {
        std::vector<std::string> names = {""};
        const list_counts counts = read_domain_list(file("list", "# a list\n" + std::string(line)),
                                                    [&](std::string_view name) {
                                                        names.emplace_back(name);
                                                        return true;
                                                    });
        EXPECT_EQ(counts.names + 1, names.size());
        EXPECT_EQ(counts.first_bad_line, first_bad_line) << line;
        return names.back();
    };
    for (const char *line :
         {"0.0.0.0 Ads.example # why", ":: ads.example\r", "0.0.0.0 a.example ads.example",
          "  ads.example.", "*.ads.example", "||ads.example^"})
        EXPECT_EQ(last_in(line, 0), "ads.example") << line;
    for (const char *line : {"# 0.0.0.0 ads.example", "[Adblock Plus 2.0]", "0.0.0.0 0.0.0.0", "",
                             "127.0.0.1 localhost localhost.localdomain"})
        EXPECT_EQ(last_in(line, 0), "") << line;
    for (const char *line :
         {"10.0.0.1 ads.example", "||ads.example^$third-party", "@@||ads.example^",
          "ads.example##.banner", "/ads[0-9]/", "com", "two words"})
        EXPECT_EQ(last_in(line, 2), "") << line;
    EXPECT_EQ(last_in("0.0.0.0 fine.example b\xC3\xA4r.example", 2), "fine.example");
    const std::string odd = file("odd", std::string(9'000, 'a') + ".b.c\nx.y" +
                                            std::string(1, '\0') + "z\nlast.example");
    EXPECT_NE(
        category_list::read({odd + "=real estate"})
            .remarks()
            .at(0)
            .find(": 1 domain of category 1 (Real Estate); lines passed over: 2, first line 1"),
        std::string::npos);
}

TEST_F(AvcoreLists, AddUpUnlessALineSaysAll) {
    const std::string ads =
        file("ads", "bet.example\ncdn.bet.example\nshop.example\nbet.example\n");
    const std::string bets = file("bets=now", "0.0.0.0 bet.example\n0.0.0.0 right.shop.example\n");
    const std::string lines = file("lines", "shop.example 60\nmany.example 1 2 3 4 5\n"
                                            "x.many.example 9\n");
    const category_list list =
        category_list::read({ads + "=Real Estate", lines, bets + "=6", bets + "=65535"});
    using ids = std::vector<int32_t>;
    EXPECT_EQ(categories(list, "www.BET.example"), (ids{1, 6, 65535}));
    EXPECT_EQ(categories(list, "a.cdn.bet.example"), (ids{1, 6, 65535}));
    EXPECT_EQ(categories(list, "shop.example"), ids{60});
    EXPECT_EQ(categories(list, "right.shop.example"), (ids{6, 65535, 60}));
    EXPECT_EQ(categories(list, "x.many.example"), ids{9});
    EXPECT_EQ(categories(list, "abet.example"), ids{});
    EXPECT_EQ(list.answer("abet.example").status, 5);
    ASSERT_EQ(mkfifo((folder + "fifo").c_str(), 0600), 0); // nobody will ever write into it
    for (const std::string &source :
         {ads + "=Real Estates", ads + "=", folder + "none=6", folder + "=6",
          std::string("/dev/zero=6"), folder + "fifo=6", folder + "fifo"})
        EXPECT_THROW(category_list::read({source}), config_error) << source;
}

// Against a table that is plain.
TEST(AvcoreDomains, AreFoundAmongMany) {
    domain_table table;
    std::map<std::string, std::vector<uint16_t>> plain;
    std::mt19937 random(1);
    for (int i = 0; i < 20'000; ++i) {
        std::string name;
        for (size_t left = 1 + random() % 12; left > 0; --left)
            name += "ab.-"[random() % 4];
        const auto category = static_cast<uint16_t>(1 + random() % 7);
        ASSERT_TRUE(table.add(name, category));
        std::vector<uint16_t> &its = plain[name];
        if (its.size() < 5 && std::find(its.begin(), its.end(), category) == its.end())
            its.push_back(category);
    }
    table.settle();
    EXPECT_EQ(table.names(), plain.size());
    for (const auto &[name, expected] : plain) {
        std::vector<uint16_t> found;
        table.each_category(name, [&](uint16_t category) { found.push_back(category); });
        EXPECT_EQ(found, expected) << name;
        table.each_category(name + 'c', [&name = name](uint16_t) { ADD_FAILURE() << name; });
    }
}

question about(const urlf_request &request) {
    return {{av_op::urlfilter_get_category, 1}, std::as_bytes(std::span(&request, 1))};
}

TEST(AvcoreAgent, WaitingAnswersAreBoundedAndOneAFlow) {
    url_agent agent({true, false, 10, "/nowhere/jorn.sock"}, category_list());
    const auto ask = [&agent](uint16_t port, const char *domain) {
        urlf_request request = {};
        request.flow_key.src_port_be = port;
        copy_text(request.domain, domain);
        return agent.answer(about(request), 0).size() > sizeof(av_answer_head);
    };
    for (uint16_t port = 0; port < url_agent::MAX_WAITING + 2; ++port) {
        EXPECT_FALSE(ask(port, "a.example"));
        EXPECT_FALSE(ask(port, "A.example"));
    }
    EXPECT_EQ(agent.late_answers(), url_agent::MAX_WAITING);
    EXPECT_EQ(agent.counts().no_room, 4u);
    agent.serve(agent.next_tick_ms() - 1);
    EXPECT_EQ(agent.late_answers(), url_agent::MAX_WAITING);
    while (agent.waiting())
        agent.serve(agent.next_tick_ms());
    EXPECT_EQ(agent.counts().undelivered, url_agent::MAX_WAITING);
    EXPECT_TRUE(ask(7, "a.Example"));
    EXPECT_FALSE(ask(7, "b.example"));
}

TEST(AvcoreAgent, ADaemonThatClosesNothingHoldsItForSeconds) {
    sockaddr_un address = {AF_UNIX, {}};
    snprintf(address.sun_path, sizeof address.sun_path, "%savcore_agent.%d",
             testing::TempDir().c_str(), getpid());
    const unique_fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.get(), 8), 0);
    url_agent agent({true, true, 0, address.sun_path}, category_list());
    urlf_request request = {};
    for (; request.flow_key.src_port_be < 100; ++request.flow_key.src_port_be)
        agent.answer(about(request), 0);
    int64_t now_ms = 0;
    for (; agent.waiting(); now_ms = std::max(now_ms, agent.next_tick_ms()))
        agent.serve(now_ms);
    unlink(address.sun_path);
    EXPECT_EQ(agent.counts().sent, 1u);
    EXPECT_EQ(agent.counts().undelivered, 99u);
}

TEST(AvcoreFlows, AVerdictByFlowKeyFitsEitherDirection) {
    const config settings;
    const client_rules rules(settings, "");
    flow_table flows(rules);
    frame_facts frame;
    frame.ipv4 = true;
    frame.ip_proto = 6;
    frame.sender = {{2}, inet_addr("10.0.0.1"), 40000};
    frame.receiver = {{4}, inet_addr("192.0.2.7"), 443};
    flow_row &row = flows.count_frame(frame, 1).row;
    row.application = "kept";

    flow_key key = {};
    key.ip_proto = 6;
    key.src_ip_be = frame.receiver.ip_be;
    key.dst_ip_be = frame.sender.ip_be;
    key.src_port_be = htons(443);
    key.dst_port_be = htons(40000);
    av_app_setting setting = {};
    copy_text(setting.name, "***");
    const auto set = [&](uint32_t verdict) {
        setting.flow_key = key;
        setting.verdict = verdict;
        return !flows.set_application(setting).empty();
    };
    EXPECT_TRUE(set(3));
    EXPECT_EQ(row.verdict, AV_VERDICT_DENY);
    std::swap(key.src_ip_be, key.dst_ip_be);
    EXPECT_FALSE(set(3));
    std::swap(key.src_port_be, key.dst_port_be);
    EXPECT_TRUE(set(2));
    EXPECT_EQ(row.verdict, AV_VERDICT_ALLOW);
    EXPECT_EQ(row.application, "kept");
}

TEST(AvcoreSafeSearch, SidesAndNamesAreBounded) {
    const std::string folder =
        testing::TempDir() + "avcore_safe_search." + std::to_string(getpid());
    safe_search service(folder);
    const auto add = [&service](uint32_t utp_id, const std::string &host,
                                std::string_view ifname = {}) {
        av_safesearch_setting setting = {};
        setting.action = av_safesearch_action::add;
        setting.mode = ifname.data() == nullptr ? 2 : 1;
        setting.utp_id = utp_id;
        copy_text(setting.ifname, ifname);
        copy_text(setting.host, host);
        return service.take(setting).empty();
    };
    for (const char *ifname : {"../x", ".", "..", "", "a/b", "utp-5", "w\n"})
        EXPECT_FALSE(add(0, "a.example", ifname)) << ifname;
    for (const char *host : {"", ".a", "a b", "a\n1.1.1.1 b", "a/b"})
        EXPECT_FALSE(add(0, host, "wlan0")) << host;
    EXPECT_TRUE(add(0, "a.example", "wlan0"));
    for (uint32_t i = 0; i < 300; ++i) {
        EXPECT_EQ(add(i, "a.example"), i < safe_search::MAX_SIDES - 1);
        EXPECT_EQ(add(0, 'n' + std::to_string(i)), i < safe_search::MAX_NAMES - 1);
    }
    EXPECT_EQ(service.write(), "");
    std::filesystem::remove_all(folder + "/utp-0");
    std::filesystem::create_directories(folder + "/utp-0/.hosts");
    EXPECT_TRUE(add(0, "n1"));
    EXPECT_EQ(service.write(), folder + "/utp-0/hosts: File exists");
    EXPECT_EQ(service.write(), "");
    std::filesystem::remove(folder + "/utp-0/.hosts");
    ASSERT_EQ(mkfifo((folder + "/utp-0/.hosts").c_str(), 0600), 0);
    EXPECT_TRUE(add(0, "n1"));
    EXPECT_EQ(service.write(), "");
    EXPECT_TRUE(std::filesystem::is_regular_file(folder + "/utp-0/hosts"));
    std::filesystem::remove_all(folder);
}

} // namespace
