// The daemon's own code beside jornctl's picture of its tables: random documents, one after the
// other, reach one daemon whole and another by what differs.
#include "control/commands.h"
#include "control/records/commands.h"
#include "control/records/message.h"
#include "jornctl/client/apply.h"
#include "jornctl/documents/documents.h"
#include "jornctl/memory/saved_files.h"
#include "jornctl/tables/differences.h"
#include "jornctl/tables/differing_commands.h"
#include "jornctl/tables/document_of.h"
#include "packet/capture.h"
#include "packet/decode/decode.h"
#include "packet/process.h"
#include "support/frames.h"
#include "support/fresh_state.h"
#include "support/memory_file.h"
#include "support/saved_folder.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <random>

using namespace jornctl;

namespace {

constexpr unsigned SEED = 20261126;
constexpr int DOCUMENTS = 2'000;
const std::vector<uint32_t> IDS = {1, 2, 3, 64};
const std::vector<std::string> INTERFACES = {"2", "wlan1", "Wlan1"}; // a UTP has the first's name
const std::vector<std::string> NAMES = {"one.example", "two.example", "tor"};

// The text with its parts behind the first one in order; each begins with the marker. The order of
// bindings decides nothing.
std::string in_order(const std::string &text, const std::string &behind,
                     const std::string &marker) {
    size_t at = text.find(behind);
    if (at == std::string::npos || (at = text.find(marker, at)) == std::string::npos)
        return text;
    std::string sorted = text.substr(0, at);
    std::vector<std::string> parts;
    for (size_t next; at != std::string::npos; at = next) {
        next = text.find(marker, at + 1);
        parts.push_back(text.substr(at, next - at));
    }
    std::ranges::sort(parts);
    for (const std::string &part : parts)
        sorted += part;
    return sorted;
}

using texts = std::map<std::string, std::string>;

// One daemon of several: its state stands in the one place while something is done with it.
class daemon_in_turn {
public:
    // Its files are there, with nothing in them.
    daemon_in_turn() { send({{CMD_WRITE_CFG_REQ, {}}, {CMD_WIFICALLING_INTF_CFG_REQ, {}}}); }
    ~daemon_in_turn() {
        send({{CMD_ARC_POLICY_FLUSH_REQ, {}},
              {CMD_WEB_POLICY_FLUSH_REQ, {}},
              {CMD_WIFICALLING_POLICY_FLUSH_REQ, {}}});
        state_->web_intf_list.release_all();
        state_->wificalling_intf_list.release_all();
    }

    void send(const std::vector<command> &sent) {
        enter();
        for (const command &each : sent)
            answer_to(each);
        leave();
    }

    std::string folder() const { return folder_.path_of(""); }

    // Listings, files and verdicts.
    texts shown() {
        enter();
        texts all;
        for (const command_number number : {CMD_USERDEF_SHOW_REQ, CMD_UTP_SHOW_REQ})
            all[std::to_string(number)] = answer_to({number, {}});
        all["37"] =
            in_order(answer_to({CMD_WIFICALLING_INTF_SHOW_REQ, {}}), "", "Interface Name: ");
        for (const uint32_t id : IDS) {
            all["4 " + std::to_string(id)] = answer_to({CMD_CHECK_PRIORITY_REQ, record_bytes(id)});
            all["33 " + std::to_string(id)] =
                answer_to({CMD_UTP_WEB_POLICY_SHOW_REQ, record_bytes(id)});
        }
        for (const std::string &ifname : INTERFACES)
            all["32 " + ifname] = answer_to({CMD_INTF_URL_POLICY_SHOW_REQ, ifname});
        for (const char *name :
             {"jorn_config.txt", "web_filter_config.txt", "wificalling_config.txt"})
            all[name] = in_order(folder_.read(name), "[intfcfg]", "\n");
        all["verdicts"] = verdicts();
        std::string &mapped = all["safe search"];
        for (const auto &[side, address_be] : platform.safe_search)
            mapped += side + ' ' + std::to_string(address_be) + '\n';
        leave();
        return all;
    }

private:
    void enter() {
        std::swap(*state_, jorn_state);
        std::swap(settings_, jorn_settings);
        std::swap(safe_search_, platform.safe_search);
        folder_.use();
        silence_log();
        jorn_settings.tm_engine_enabled = 1;
    }
    void leave() {
        std::swap(*state_, jorn_state);
        std::swap(settings_, jorn_settings);
        std::swap(safe_search_, platform.safe_search);
    }

    static std::string answer_to(const command &sent) {
        std::string message = make_message(sent);
        const size_t size = message.size();
        message.resize(COMMAND_MESSAGE_SIZE);
        const memory_file answer;
        run_command(answer.fd(), message.data(), size);
        return answer.content();
    }

    static uint32_t judged(const octets &packet, const av_pkt_trailer &trailer) {
        const octets frame = with_trailer(ethernet(0x0800, packet), trailer);
        const pcap_pkthdr header = capture_header(frame);
        capture_context context = {};
        jorn_pkt_callback(reinterpret_cast<uint8_t *>(&context), &header, frame.data());
        return platform.last_verdict;
    }

    static std::string verdicts() {
        std::string all;
        jorn_pkt_processor = jorn_decode_eth_pkt;
        for (const uint32_t id : IDS) {
            for (const std::string &name : NAMES) {
                av_pkt_trailer trailer = {};
                trailer.src_utp_id = id;
                trailer.filter_type = AV_FILTER_DPI;
                trailer.dpi_status = AV_DPI_IDENTIFIED;
                copy_text(trailer.dpi_app_name, name);
                all += std::to_string(judged(ipv4(6, tcp(40000, 443)), trailer));
            }
            for (const std::string &ifname : INTERFACES) {
                av_pkt_trailer trailer = {};
                trailer.trailer_word3 = id;
                trailer.filter_type = AV_FILTER_URL;
                copy_text(trailer.src_if_name, ifname);
                copy_text(trailer.kernel_domain, "www.x.example");
                all += std::to_string(judged(ipv4(6, tcp(40000, 443)), trailer));
                trailer.filter_type = AV_FILTER_WIFICALLING;
                all += std::to_string(judged(ipv4(17, udp(500, 500)), trailer));
            }
        }
        return all;
    }

    saved_folder folder_;
    std::unique_ptr<daemon_state> state_ = std::make_unique<daemon_state>();
    daemon_settings settings_ = {};
    std::map<std::string, uint32_t> safe_search_;
};

// Documents of few names, so that they meet.
class author {
public:
    document write() {
        while (true) {
            nlohmann::json text;
            // Tables that belong together mostly come together.
            const bool partly = one_in(3);
            for (const auto &[key, make] : TABLES) {
                if (!(partly && one_in(2)))
                    text[key] = changed(key, make);
            }
            document read = text.empty() ? document() : read_document(text.dump());
            if (text.empty() || read.found.has_mistakes())
                continue;
            last_.update(text);
            return read;
        }
    }

private:
    using json = nlohmann::json;
    struct table {
        const char *key;
        json (author::*make)();
    };
    static const table TABLES[8];

    bool one_in(unsigned n) { return random_() % n == 0; }
    template <typename T>
    T pick(const std::vector<T> &from) {
        return from[random_() % from.size()];
    }
    std::string name() { return pick<std::string>({"", "a", "b", "B", "c"}); }

    // What it was, with one record more, less or another, or all anew.
    json changed(const char *key, json (author::*make)()) {
        json records = last_.contains(key) ? last_[key] : json::array();
        const auto position = [&] {
            return static_cast<json::difference_type>(records.empty() ? 0
                                                                      : random_() % records.size());
        };
        switch (random_() % 8) {
        case 0:
            records.push_back((this->*make)());
            break;
        case 1:
            if (!records.empty())
                records.erase(records.begin() + position());
            break;
        case 2:
        case 3:
            if (!records.empty())
                records[static_cast<size_t>(position())] = (this->*make)();
            break;
        case 4:
            records = json::array();
            for (size_t count = random_() % 4; count > 0; --count)
                records.push_back((this->*make)());
            break;
        default:
            break;
        }
        return records;
    }

    json policy() {
        json made = {{"utp_id", pick(IDS)},
                     {"name", name()},
                     {"uuid", name()},
                     {"log_enable", one_in(4)},
                     {"rules", json::array()}};
        for (size_t count = 1 + random_() % 3; count > 0; --count)
            made["rules"].push_back({{"app_name", pick(NAMES)}, {"deny", one_in(2)}});
        return made;
    }
    json utp() { return {{"id", pick(IDS)}, {"name", name()}, {"uuid", name()}}; }
    json application() {
        return {{"app_name", pick<std::string>({"clock", "door"})},
                {"dst_port", 1 + random_() % 2}};
    }
    json web_policy() {
        json made = {{"name", name()},
                     {"uuid", name()},
                     {"categories", {random_() % 3}},
                     {"blacklist", {pick<std::string>({"x.example", "y.example"})}}};
        if (one_in(2))
            made["utp_id"] = pick(IDS);
        if (one_in(3))
            made.update({{"google_safe_search", true}, {"google_vip", "203.0.113.1"}});
        return made;
    }
    json web_interface() {
        json made = {{"ifname", pick(INTERFACES)}, {"enable", one_in(2)}, {"policy_uuid", name()}};
        if (one_in(5))
            made["delete"] = true;
        return made;
    }
    json carrier() {
        json made = {{"pname", pick<std::string>({"a", "b", "B", "c"})},
                     {"priority", random_() % 2},
                     {"alt_name", one_in(8) ? "x" : ""},
                     {"epdg", json::array()}};
        for (size_t count = random_() % 3; count > 0; --count)
            made["epdg"].push_back(
                {{"fqdn", pick<std::string>({"e.example", "f.example"})},
                 {"ipaddr", pick<std::string>({"192.0.2.5", "192.0.2.6", "0.0.0.0"})}});
        return made;
    }
    json wificalling_interface() {
        json made = {
            {"ifname", pick(INTERFACES)},
            {"intf_value", random_() % 2},
            {"profile", {pick<std::string>({"a", "b", "c"}), pick<std::string>({"A", "d"})}}};
        if (one_in(5))
            made["delete"] = true;
        return made;
    }

    std::mt19937 random_{SEED};
    json last_ = json::object();
};

const author::table author::TABLES[8] = {
    {"policies", &author::policy},
    {"utps", &author::utp},
    {"applications", &author::application},
    {"web_policies", &author::web_policy},
    {"web_utps", &author::utp},
    {"web_interfaces", &author::web_interface},
    {"carriers", &author::carrier},
    {"wificalling_interfaces", &author::wificalling_interface}};

std::vector<command> all_of(const way &taken) {
    std::vector<command> all;
    for (const command_group &group : taken.groups)
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

std::string said(const texts &all) {
    std::string text;
    for (const auto &[name, part] : all)
        text += "== " + name + '\n' + part + '\n';
    return text;
}

TEST(JornctlTables, WhatDiffersLeavesWhatTheWholeDocumentLeaves) {
    fresh_state();
    author writes;
    daemon_in_turn whole;
    daemon_in_turn shorter;
    daemon_tables tables;
    size_t sent_whole = 0;
    size_t sent_shorter = 0;
    size_t without_any = 0;
    size_t exported = 0;
    std::string before = said(shorter.shown());
    for (int i = 0; i < DOCUMENTS; ++i) {
        const document wanted = writes.write();
        const std::vector<command> all = commands_of(wanted);
        const way taken = shortest_way(tables, wanted);
        const std::vector<command> few = all_of(taken);
        whole.send(all);
        shorter.send(few);
        const texts shown = shorter.shown();
        const std::string now = said(shown);
        ASSERT_EQ(now, said(whole.shown())) << "document " << i;
        sent_whole += all.size();
        sent_shorter += few.size();
        without_any += few.empty();
        // What the listings show otherwise is said.
        EXPECT_TRUE(now == before || !differences(tables, taken.end).empty() ||
                    tables.wificalling_file_behind || tables.arc_enabled != taken.end.arc_enabled ||
                    tables.safe_search != taken.end.safe_search)
            << i;
        before = now;
        tables = taken.end;
        EXPECT_TRUE(are_saved(tables, shorter.folder())) << i;

        const document kept = document_of(tables);
        if (i % 3 != 0 || !says_all(kept, tables))
            continue;
        daemon_in_turn empty;
        empty.send(commands_of(kept));
        texts again = empty.shown();
        again["safe search"] = shown.at("safe search"); // it outlives what it was made for
        if (tables.wificalling_file_behind)
            again["wificalling_config.txt"] = shown.at("wificalling_config.txt");
        ASSERT_EQ(said(again), now) << "document " << i;
        EXPECT_TRUE(shortest_way(tables, kept).groups.empty() || tables.wificalling_file_behind)
            << i;
        ++exported;
    }
    EXPECT_LT(sent_shorter * 3, sent_whole * 2);
    EXPECT_GT(without_any, 20u);
    EXPECT_GT(exported, 50u);
}

// A new policy gets the interfaces of the one that had its UTP, until their bindings are set again.
TEST(JornctlTables, SafeSearchStaysABindingsOwn) {
    fresh_state();
    daemon_in_turn whole;
    daemon_in_turn shorter;
    daemon_tables tables;
    for (const char *text :
         {R"({"web_policies": [{"uuid": "p", "utp_id": 1}], "web_utps": [{"id": 2, "uuid": "p"}],
              "web_interfaces": [{"ifname": "2", "policy_uuid": "p"}]})",
          R"({"web_policies": [{"uuid": "p", "utp_id": 1}, {"uuid": "q", "utp_id": 2,
                                "google_safe_search": true, "google_vip": "203.0.113.1"}],
              "web_utps": [{"id": 1, "uuid": "p"}],
              "web_interfaces": [{"ifname": "2", "policy_uuid": "p"}]})"}) {
        const document wanted = read_document(text);
        whole.send(commands_of(wanted));
        const way taken = shortest_way(tables, wanted);
        shorter.send(all_of(taken));
        tables = taken.end;
        EXPECT_EQ(said(shorter.shown()), said(whole.shown()));
    }
    EXPECT_EQ(tables.safe_search.size(), 1u);
}

} // namespace
