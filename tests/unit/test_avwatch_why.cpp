// `avwatch why` beside the daemon: random documents and flows, and no difference in any verdict;
// without the part that why says decides, the daemon says what why says would follow.
#include "core/dns/dns_cache.h"
#include "jornctl/client/apply.h"
#include "shared/json_text.h"
#include "support/daemon_in_turn.h"
#include "support/hex_records.h"
#include "support/random_documents.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

using nlohmann::json;

namespace {

constexpr int DOCUMENTS = 500 / JORN_ROUNDS_SHARE;
constexpr int FLOWS_EACH = 4;
constexpr char PORT_SERVICE_FILE[] = "uploadjorport_file_1.0";
// Which name the same port twice, and a port that the daemon knows.
constexpr char PORT_SERVICES[] = "2,tcp,3,2,clock\n443,udp,1,1,door\n\n2,tcp,3,1,door\n"
                                 "443,udp,1,1,clock\n22,tcp,0,0,tor\n443,tcp,0,0,clock";

class judging_daemon : public daemon_in_turn {
public:
    explicit judging_daemon(const json &documents) {
        for (const char *which : {"in_force", "tried"}) {
            jornctl::document said = jornctl::read_document(json_text(documents[which]));
            said.found = {}; // without its parts it may say what no author would
            send(jornctl::commands_of(said));
        }
        folder_.write(PORT_SERVICE_FILE, documents["port_services"].get<std::string>());
        send({{CMD_PORT_SERVICE_CFG_REQ, {}}});
    }
    ~judging_daemon() {
        folder_.write(PORT_SERVICE_FILE, "");
        send({{CMD_PORT_SERVICE_CFG_REQ, {}}});
    }

    std::string record_for(const json &asked) {
        const std::map<std::string, std::string> kept = asked["names"];
        platform.dns.clear();
        for (const auto &[address, name] : kept)
            platform.dns[ip(address)] = {name};
        categories_ = asked["categories"];
        platform.category_answer = [](const urlf_request *, urlf_reply *reply) {
            if (categories_.is_null())
                return -1;
            *reply = {};
            for (const int32_t category : categories_)
                reply->answer.categories[reply->answer.category_count++] = category;
            return 0;
        };
        const bool is_tcp = asked["protocol"] == 6;
        const unsigned from = asked["client_port"];
        const unsigned to = asked["server_port"];
        const ipv4_words sides = {.src = ntohl(ip(asked["client"])),
                                  .dst = ntohl(ip(asked["server"]))};
        av_pkt_trailer trailer;
        from_hex(asked["trailer"].get_ref<const std::string &>(), trailer);
        const octets frame =
            with_trailer(ethernet(0x0800, ipv4(asked["protocol"],
                                               is_tcp ? tcp(from, to) : udp(from, to), sides)),
                         trailer);
        enter();
        jorn_dnscache_hash_table_init();
        av_verdict record = verdict_on(frame);
        dns_cache_free();
        leave();
        record.flow_key = {};
        return to_hex(record);
    }

private:
    static inline json categories_;
};

class asker {
public:
    // Any; or one that the web filter, or that Wi-Fi calling is asked for. Mostly of a profile and
    // an interface that the documents have.
    json flow(json documents) {
        const auto kind = random_() % 3;
        const std::string name = pick(kind == 1 ? WEB_HOSTS : HOSTS);
        const auto server = pick<std::string>({"192.0.2.5", "192.0.2.7", "198.51.100.5"});
        const auto client = pick<std::string>({"10.1.0.12", "10.1.0.12", "192.0.2.6"});
        av_pkt_trailer trailer = {};
        trailer.src_utp_id = aimed(documents["policies"], "utp_id", IDS);
        trailer.dst_utp_id = pick<uint32_t>({0, 0, 1, 2});
        trailer.trailer_word2 = pick<uint32_t>({0, 1, 2});
        trailer.trailer_word3 = pick<uint32_t>({0, 0, 1, 3});
        trailer.filter_type = kind == 0   ? pick<uint32_t>({0, 2, 2, 3, 7})
                              : kind == 1 ? pick<uint32_t>({1, 3})
                                          : pick<uint32_t>({4, 6});
        trailer.dpi_status = static_cast<uint32_t>(1 + random_() % 3);
        trailer.dpi_app_id = pick<uint16_t>({0, 0, 1, 2});
        trailer.dpi_cat_id = trailer.dpi_app_id != 0 ? 3 : 0;
        const char *const bindings = kind == 2 ? "wificalling_interfaces" : "web_interfaces";
        copy_text(trailer.src_if_name, aimed(documents[bindings], "ifname", INTERFACES));
        copy_text(trailer.dst_if_name, pick<std::string>({"eth0", "wlan1"}));
        copy_text(trailer.dpi_app_name, pick<std::string>({name, name, "HTTP"}));
        copy_text(trailer.kernel_domain, pick<std::string>({name, ""}));
        const json categories = pick<json>({nullptr, json::array({0}), {1}, {2, 4}, {3, 1}});
        return {{"client", client},
                {"server", server},
                {"client_port", pick<int>({0, 1, 40000, 40000, 40000})},
                {"server_port", kind == 2 ? pick<int>({500, 4500})
                                          : pick<int>({1, 2, 22, 80, 443, 443, 443, 443})},
                {"protocol", kind == 2 ? 17 : pick<int>({6, 17})},
                {"trailer", to_hex(trailer)},
                {"names", {{pick<std::string>({server, server, client}), pick(HOSTS)}}},
                {"categories", categories}};
    }

private:
    inline static const std::vector<std::string> WEB_HOSTS = {"X.example", "a.y.example",
                                                              "www.Two.example", "tor"};
    inline static const std::vector<std::string> HOSTS = {"one.example", "www.Two.example", "tor",
                                                          "x.example", "e.example"};

    template <typename T>
    T aimed(const json &records, const char *key, const std::vector<T> &others) {
        return records.empty() || random_() % 4 == 0
                   ? pick(others)
                   : records[random_() % records.size()][key].get<T>();
    }

    template <typename T>
    T pick(const std::vector<T> &from) {
        return from[random_() % from.size()];
    }

    std::mt19937 random_{20261126};
};

std::vector<json> answers_to(const std::vector<json> &questions) {
    const saved_folder folder;
    std::ofstream to(folder.path_of("questions"));
    for (const json &each : questions)
        to << each << '\n';
    to.close();
    const std::string command = std::string(getenv("JORN_BIN_DIR")) + "/why_cases <" +
                                folder.path_of("questions") + " >" + folder.path_of("answers");
    EXPECT_EQ(system(command.c_str()), 0);
    std::ifstream from(folder.path_of("answers"));
    std::vector<json> answers;
    for (std::string line; std::getline(from, line);)
        answers.push_back(read_json(line));
    return answers;
}

std::string without_line(const std::string &text, size_t number) {
    std::istringstream lines(text);
    std::string left;
    for (std::string line; std::getline(lines, line); left += '\n') {
        if (number-- != 0)
            left += line;
    }
    return left;
}

// The documents without what was said to decide before answer number `count`.
json without(json documents, const json &answers, size_t count) {
    std::vector<std::pair<size_t, json::json_pointer>> gone;
    for (size_t i = 0; i < count; ++i) {
        if (answers[i].contains("line")) {
            documents["port_services"] =
                without_line(documents["port_services"], answers[i]["line"]);
            continue;
        }
        const json::json_pointer path(answers[i]["path"].get<std::string>());
        gone.emplace_back(std::stoul(path.back()),
                          json::json_pointer("/" + answers[i]["document"].get<std::string>()) /
                              path);
    }
    std::ranges::sort(gone, std::greater()); // the places of the others stay
    for (const auto &[place, path] : gone)
        documents[path.parent_pointer()].erase(place);
    return documents;
}

// Documents, and flows about each.
std::vector<json> questions() {
    document_author writes;
    asker asks;
    std::vector<json> all;
    for (int i = 0; i < DOCUMENTS; ++i) {
        const json before = writes.all();
        writes.write();
        json documents = {{"in_force", i % 2 != 0 ? before : writes.all()},
                          {"tried", i % 2 != 0 ? writes.written() : json::object()},
                          {"port_services", i % 3 == 0 ? PORT_SERVICES : ""}};
        if (jornctl::read_document(json_text(documents["in_force"])).found.has_mistakes())
            continue;
        json flows;
        for (int flow = 0; flow < FLOWS_EACH; ++flow)
            flows.push_back(asks.flow(writes.all()));
        all.push_back({{"documents", std::move(documents)}, {"flows", std::move(flows)}});
    }
    return all;
}

// What part decided, without its place.
std::string kind_of(const json &answer) {
    std::string kind = answer.contains("line") ? "line" : answer.value("path", "");
    std::erase_if(kind, [](char c) { return c >= '0' && c <= '9'; });
    return kind;
}

TEST(Why, SaysWhatTheDaemonDecidesAndWhatDecidesNext) {
    fresh_state();
    const std::vector<json> asked = questions();
    const std::vector<json> answers = answers_to(asked);
    ASSERT_EQ(answers.size(), asked.size());
    std::map<std::string, int> decided;
    for (size_t i = 0; i < asked.size(); ++i) {
        std::map<json, judging_daemon> daemons; // by what is left of the documents
        for (size_t flow = 0; flow < asked[i]["flows"].size(); ++flow) {
            const json &said = answers[i][flow];
            ASSERT_FALSE(said.back().contains("path") || said.back().contains("line"));
            for (size_t gone = 0; gone < said.size(); ++gone) {
                const json left = without(asked[i]["documents"], said, gone);
                judging_daemon &daemon = daemons.try_emplace(left, left).first->second;
                ASSERT_EQ(daemon.record_for(asked[i]["flows"][flow]), said[gone]["record"])
                    << i << ' ' << flow << ' ' << gone << ' ' << said << '\n'
                    << asked[i];
                ++decided[kind_of(said[gone])];
            }
        }
    }
    for (const char *kind :
         {"", "/policies//rules/", "/web_policies//whitelist/", "/web_policies//blacklist/",
          "/web_policies//categories/", "/carriers/", "/applications/", "line"})
        EXPECT_GT(decided[kind], 10 / JORN_ROUNDS_SHARE) << kind;
}

} // namespace
