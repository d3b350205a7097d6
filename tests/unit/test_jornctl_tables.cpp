// The daemon's own code beside jornctl's picture of its tables: random documents, one after the
// other, reach one daemon whole and another by what differs.
#include "control/records/commands.h"
#include "jornctl/client/apply.h"
#include "jornctl/documents/documents.h"
#include "jornctl/memory/saved_files.h"
#include "jornctl/tables/differences.h"
#include "jornctl/tables/differing_commands.h"
#include "jornctl/tables/document_of.h"
#include "support/daemon_in_turn.h"
#include "support/frames.h"
#include "support/fresh_state.h"
#include "support/random_documents.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

using namespace jornctl;

namespace {

constexpr int DOCUMENTS = 2'000 / JORN_ROUNDS_SHARE;

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

class listed_daemon : public daemon_in_turn {
public:
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
    static uint32_t judged(const octets &packet, const av_pkt_trailer &trailer) {
        return verdict_on(with_trailer(ethernet(0x0800, packet), trailer)).verdict;
    }

    static std::string verdicts() {
        std::string all;
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
};

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
    document_author writes;
    listed_daemon whole;
    listed_daemon shorter;
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
        listed_daemon empty;
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
    EXPECT_GT(without_any, DOCUMENTS / 100u);
    EXPECT_GT(exported, DOCUMENTS / 40u);
}

// A new policy gets the interfaces of the one that had its UTP, until their bindings are set again.
TEST(JornctlTables, SafeSearchStaysABindingsOwn) {
    fresh_state();
    listed_daemon whole;
    listed_daemon shorter;
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
