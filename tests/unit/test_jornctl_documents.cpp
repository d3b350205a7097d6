#include "jornctl/client/apply.h"
#include "jornctl/client/commands.h"
#include "jornctl/documents/documents.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <map>

using namespace jornctl;

namespace {

const std::map<uint32_t, const char *> TABLES = {{CMD_ARC_UTP_CFG_REQ, "utps"},
                                                 {CMD_ARC_POLICY_CFG_REQ, "policies"},
                                                 {CMD_WEB_POLICY_CFG_REQ, "web_policies"},
                                                 {CMD_WEB_INTF_CFG_REQ, "web_interfaces"},
                                                 {CMD_WIFICALLING_POLICY_CFG_REQ, "carriers"}};

// The document again, from the payloads of its commands and their description.
document described_again(const document &read) {
    nlohmann::json again;
    for (const command &each : commands_of(read)) {
        const std::string text = describe(each);
        const std::string_view fields = std::string_view(text).substr(text.find('\n') + 1);
        if (fields.empty())
            continue;
        nlohmann::json words = nlohmann::json::parse(fields);
        if (words.erase("count") != 0)
            again["applications"] = words["applications"];
        else
            again[TABLES.at(each.number)].push_back(words);
    }
    return read_document(again.dump());
}

template <typename Record>
bool same_bytes(const std::vector<Record> &a, const std::vector<Record> &b) {
    return a.size() == b.size() && memcmp(a.data(), b.data(), a.size() * sizeof(Record)) == 0;
}

// A document of so many equal elements.
std::string repeated(const std::string &before, const std::string &element, size_t count,
                     const std::string &after) {
    std::string text = before;
    for (size_t i = 0; i < count; ++i)
        text += (i == 0 ? "" : ",") + element;
    return text + after;
}

std::string in_rule(const std::string &members) {
    return R"({"policies": [{"utp_id": 1, "rules": [{)" + members + "}]}]}";
}

std::string in_application(const std::string &members) {
    return R"({"applications": [{"app_name": "a", )" + members + "}]}";
}

// That they are the right bytes is seen in those that are kept of each version.
TEST(JornctlDocuments, WhatIsSentIsDescribedAsItWasWritten) {
    const document read = read_document(R"({
        "policies": [{ // a comment
            "attr1": 1, "attr3": 3, "attr4": 255, "log_enable": true, "utp_id": 63, "name": "p",
            "uuid": "u", "rules": [
                {"app_id": 65535, "cat_id": 2, "app_name": "first", "cat_name": "c", "deny": 1,
                 "rate_up": 3, "rate_down": 65535,
                 "qos": {"mark": {"kind": "both", "type": "Voice"}, "classify": "BestEffort"}},
                {"app_name": "second", "cat_id": "User Defined", "qos": {"classify": "Background"}},
                {"app_name": "third", "qos": {"mark": {"kind": "dscp", "type": "Video"}}}]}],
        "applications": [
            {"app_name": "net", "src_ip": "192.0.2.1", "dst_ip": "10.0.0.0/9", "src_port": 1,
             "dst_port": 65535, "protocol": "udp", "app_id": 7, "cat_id": 8},
            {"app_name": "host", "dst_ip": "10.1.2.3", "protocol": "tcp"},
            {"app_name": "all", "dst_ip": "0.0.0.0/0", "cat_id": "User Defined"}],
        "web_policies": [{"name": "n", "uuid": "u", "utp_id": 5, "filter_type": "CUSTOM",
            "categories": ["Uncategorized", 200, 65535], "whitelist": ["a", "*.b"], "blacklist": ["c"],
            "google_safe_search": true, "google_vip": "203.0.113.5", "youtube_vip": "10.0.0.1"}],
        "web_interfaces": [{"ifname": "wlan0", "enable": true, "intf_value": 7, "policy_uuid": "U"},
                           {"ifname": "wlan1", "delete": true}],
        "carriers": [{"pname": "p", "alt_name": "a", "priority": -1,
                      "epdg": [{"fqdn": "f"}, {"ipaddr": "10.0.0.1"}]}]})");
    const document again = described_again(read);
    EXPECT_TRUE(same_bytes(*again.policies, *read.policies));
    EXPECT_TRUE(same_bytes(*again.applications, *read.applications));
    EXPECT_TRUE(same_bytes(*again.web_policies, *read.web_policies));
    EXPECT_TRUE(same_bytes(*again.web_interfaces, *read.web_interfaces));
    EXPECT_TRUE(same_bytes(*again.carriers, *read.carriers));
    std::vector<uint32_t> masks;
    for (const userdef_app &each : *read.applications)
        masks.push_back(ntohl(each.netmask));
    EXPECT_EQ(masks, (std::vector{0xFF800000, 0xFFFFFFFF, 0u}));
    EXPECT_EQ(read.web_interfaces->at(1).op, WEB_INTF_DELETE);
}

TEST(JornctlDocuments, BindingsOfCarriersAreMadeAnew) {
    const std::vector<command> commands = commands_of(read_document(
        R"({"wificalling_interfaces": [{"ifname": "a", "profile": ["p"], "profile_alt": ["q"]},
                                       {"ifname": "b", "delete": true}]})"));
    wificalling_intf_wire binding = {0, "a", 0, 1, {"p"}, {"q"}, {}};
    ASSERT_EQ(commands.size(), 3u);
    EXPECT_EQ(commands[0].payload, record_bytes(binding));
    binding.enable = 1;
    EXPECT_EQ(commands[1].payload, record_bytes(binding));
    EXPECT_EQ(commands[2].payload, record_bytes(wificalling_intf_wire{0, "b", 0, 0, {}, {}, {}}));
}

TEST(JornctlDocuments, WarnsOfWhatMayNotBeMeant) {
    const std::string long_rule =
        R"({"app_id": 10000, "rate_up": 10000, "rate_down": 10000, "cat_id": 10000, "app_name": ")" +
        std::string(63, 'a') + R"(", "cat_name": ")" + std::string(31, 'c') + R"("})";
    const struct {
        std::string text;
        std::vector<std::string> begins; // of the warnings
    } rows[] = {
        {R"({"utps": [{"id": 64}]})", {"/utps/0/id: packets never find"}},
        {R"({"policies": [{"utp_id": 1}]})", {"/policies/0: has no rules"}},
        {repeated(R"({"policies": [{"utp_id": 1, "rules": [)", long_rule, 64, "]}]}"),
         {"/policies/0: too much text", "/policies/0/rules/"}},
        {R"({"policies": [], "utps": [{"id": 1, "uuid": "x"}]})", {"/utps/0/uuid: no policy"}},
        {R"({"web_policies": [{"categories": [0], "whitelist": ["*.*"], "blacklist": ["a.*.b"]}],
             "web_utps": [{"id": 64, "uuid": "x"}]})",
         {"/web_policies/0: nothing can use it",
          "/web_policies/0/categories/0: category 0 is never",
          "/web_policies/0/whitelist/0: fits every", "/web_policies/0/blacklist/0: never fits",
          "/web_policies: the daemon's bindings", "/web_utps/0/id: packets never",
          "/web_utps/0/uuid: no policy"}},
        {R"({"web_policies": [], "web_interfaces": [{"ifname": "a", "policy_uuid": "x"}]})",
         {R"(/web_interfaces/0 ("a"): without enable)",
          R"(/web_interfaces/0/policy_uuid ("a"): no policy)"}},
        {R"({"carriers": [{"pname": "c", "priority": 255, "epdg": [{"ipaddr": "10.0.0.1"}]}]})",
         {R"(/carriers/0/priority ("c"): packets keep)",
          R"(/carriers/0/epdg/0 ("c"): without an fqdn)", "/carriers: the daemon's bindings"}},
        {R"({"carriers": [], "wificalling_interfaces": []})", {"/carriers: the daemon's file"}},
        {R"({"carriers": [{"pname": "c", "priority": 1}],
             "wificalling_interfaces": [{"ifname": "a", "profile": ["C", "d"]}]})",
         {R"(/wificalling_interfaces/0/profile/1 ("a"): no carrier)"}},
        {in_application(R"("src_port": 9)"), {R"(/applications/0 ("a"): every packet fits)"}},
        {in_rule(R"("app_name": "site.com", "deny": 1, "rate_up": 1)"),
         {R"(/policies/0/rules/0/deny ("site.com"): )"}},
        {in_rule(R"("app_name": "*.a.com", "app_id": 1)"),
         {R"(/policies/0/rules/0/app_id ("*.a.com"): without)"}},
        {in_rule(R"("app_name": "site.com"}, {"app_name": "www.Site.com")"),
         {R"(/policies/0/rules/1 ("www.Site.com"): never decides, for what it fits fits )"
          R"(/policies/0/rules/0 ("site.com"))"}},
        {in_rule(R"("app_name": "a", "app_id": 1, "cat_id": 0},
                    {"app_name": "b", "app_id": 1, "cat_id": 0)"),
         {R"(/policies/0/rules/1 ("b"): never decides)"}},
        {in_rule(R"("app_name": "."}, {"app_name": "b", "app_id": 1, "cat_id": 0)"),
         {R"(/policies/0/rules/1 ("b"): never decides)"}},
        {in_rule(R"("app_name": "www.site.com"}, {"app_name": "site.com"},
                    {"app_name": "site.com", "app_id": 1, "cat_id": 2)"),
         {}},
    };
    for (const auto &row : rows) {
        std::vector<std::string> expected = row.begins;
        for (const std::string &warning : read_document(row.text).found.warnings()) {
            const bool is_expected =
                std::any_of(row.begins.begin(), row.begins.end(), [&](const std::string &begin) {
                    std::erase_if(expected, [&](const auto &e) { return warning.starts_with(e); });
                    return warning.starts_with(begin);
                });
            EXPECT_TRUE(is_expected) << row.text << "\n" << warning;
        }
        EXPECT_TRUE(expected.empty()) << row.text << "\n" << expected.front();
    }
}

TEST(JornctlDocuments, DoubtsNamesThatFitMoreOrLessThanTheySay) {
    platform_facts around;
    around.applications = {"YouTube", "AmazonAWS", "CNN", "HTTP_Proxy"};
    const char *const short_one = "fits other names that hold it";
    const char *const short_word = "so short that many hold it";
    const char *const address = "no scheme, path or port";
    const struct {
        const char *name;
        const char *rule;    // what is said of it in a rule, in part; empty: nothing
        const char *pattern; // and in a black list
    } rows[] = {
        {"x.com", short_one, short_one},
        {"x.co.uk", short_one, short_one},
        {".x.com", "", ""},
        {"www.x.com", "", ""},
        {"zoom.us", "", ""},
        {"10.2", "", ""}, // of addresses
        {"https://www.example.com/watch", R"(port; write "www.example.com")", address},
        {"www.example.com/watch", address, address},
        {"www.example.com:8443", address, address},
        {"10.0.0.1:443", "", ""}, // as a flow without a name is called
        {"*.example.com", "never fits", ""},
        {"*", R"("." fits every name)", "fits every domain"},
        {".", "", ""},
        {"com", "fits every name", short_word},
        {"X", short_word, short_word},
        {"DNS", "", short_word}, // a well-known port's
        {"icmp", "", ""},
        {"FTP", "", short_word}, // FTP-Control
        {"cnn", "", short_word}, // the DPI engine's
        {"amazon", "", ""},
        {"Backups", "", ""}, // the document's
        {"casino", "none is called so", ""},
    };
    for (const auto &row : rows) {
        const nlohmann::json text = {
            {"applications", {{{"app_name", "Backups"}, {"dst_port", 873}}}},
            {"policies", {{{"utp_id", 1}, {"rules", {{{"app_name", row.name}}}}}}},
            {"web_policies", {{{"uuid", "u"}, {"blacklist", {row.name}}}}},
            {"web_interfaces", nlohmann::json::array()}};
        std::string rule;
        std::string pattern;
        for (const std::string &warning : read_document(text.dump(), around).found.warnings())
            (warning.starts_with("/policies") ? rule : pattern) += warning;
        for (const auto &[said, part] : {std::pair(rule, row.rule), {pattern, row.pattern}})
            EXPECT_TRUE(*part == '\0' ? said.empty() : said.find(part) != std::string::npos)
                << row.name << ": " << said;
    }
    EXPECT_TRUE(read_document(in_rule(R"("app_name": "casino")")).found.warnings().empty())
        << "on a device nobody knows the names";
}

TEST(JornctlDocuments, WarnsOfWhatNoClientOfThisMachineHas) {
    platform_facts around;
    around.clients = {{"wlan0"}, {1, 2}, {5}};
    const document read = read_document(R"({
        "policies": [{"utp_id": 1, "name": "one", "rules": [{"app_name": "."}]},
                     {"utp_id": 3, "name": "three", "rules": [{"app_name": "."}]},
                     {"utp_id": 4, "uuid": "u", "rules": [{"app_name": "."}]}],
        "utps": [{"id": 2, "uuid": "U"}],
        "web_policies": [{"uuid": "w", "utp_id": 6}],
        "web_utps": [{"id": 5, "uuid": "w"}],
        "web_interfaces": [{"ifname": "wlan0", "enable": 1}, {"ifname": "wlan1", "enable": 1},
                           {"ifname": "wlan2", "delete": 1}],
        "wificalling_interfaces": [{"ifname": "wlan3", "profile": ["c"]}]})",
                                        around);
    std::vector<std::string> paths;
    for (const std::string &warning : read.found.warnings())
        paths.push_back(warning.substr(0, warning.find(':')));
    EXPECT_EQ(paths,
              (std::vector<std::string>{R"(/policies/1/utp_id ("three"))", "/web_policies/0/utp_id",
                                        R"(/web_interfaces/1/ifname ("wlan1"))",
                                        R"(/wificalling_interfaces/0/ifname ("wlan3"))"}));
}

// Each mistake once, and none that only follows from another.
TEST(JornctlDocuments, AllMistakesAreSaidAtOnce) {
    const document read = read_document(R"({
        "policies": [{"utp_id": 1, "name": "a", "uuid": "u", "uuid": 7, "rules": [
                         {"app_name": "fine.example"}, {"app_name": "", "deny": 2}, 8]},
                     {"name": "b", "nam": "c"}, {"utp_id": 1}],
        "utps": [{"id": 1, "uuid": "u"}],
        "applications": [{"app_name": "net", "dst_ip": "10.0.0", "netmask": "255.0.0.0"}],
        "wificalling_interfaces": [{"ifname": "wlan0", "profile": "c"}]})");
    const char *const expected[] = {R"(/policies/0/uuid ("a"))",
                                    R"(/policies/0/uuid ("a"))",
                                    R"(/policies/0/rules/1/app_name ("a"))",
                                    R"(/policies/0/rules/1/deny ("a"))",
                                    R"(/policies/0/rules/2 ("a"))",
                                    R"(/policies/1 ("b"))",
                                    R"(/policies/1/nam ("b"))",
                                    R"(/applications/0/dst_ip ("net"))",
                                    R"(/wificalling_interfaces/0/profile ("wlan0"))",
                                    "/policies/2/utp_id"};
    ASSERT_EQ(read.found.mistakes().size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_TRUE(read.found.mistakes()[i].starts_with(expected[i])) << read.found.mistakes()[i];
    EXPECT_TRUE(read.found.warnings().empty()) << read.found.warnings().front();
    EXPECT_THROW(commands_of(read), std::runtime_error);
}

// What a flush leaves in the daemon's file would come back at its next start.
TEST(JornctlDocuments, CommandsEndWithOneThatWritesTheFile) {
    const struct {
        const char *text;
        std::vector<uint32_t> numbers;
    } rows[] = {
        {R"({"policies": []})", {24, 17}},
        {R"({"policies": [], "applications": []})", {6, 24, 17}},
        {R"({"policies": [], "utps": [{"id": 1}]})", {24, 22, 20}},
        {R"({"policies": [{"utp_id": 1}], "utps": [], "applications": []})", {6, 24, 22, 23}},
        {R"({"utps": []})", {22}}, // in no file
        {R"({"policies": [], "web_policies": [{}], "web_interfaces": [{"ifname": "a"}],
             "carriers": [{"pname": "c", "priority": 1}], "web_utps": [{"id": 1}]})",
         {24, 22, 29, 28, 21, 30, 38, 35}},
        {R"({"web_policies": []})", {29, 17}},
        {R"({"policies": [], "web_policies": [{}]})", {24, 29, 28, 17}},
    };
    for (const auto &row : rows) {
        std::vector<uint32_t> numbers;
        for (const command &each : commands_of(read_document(row.text)))
            numbers.push_back(each.number);
        EXPECT_EQ(numbers, row.numbers) << row.text;
    }
}

} // namespace
