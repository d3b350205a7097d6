#include "jornctl/apply.h"
#include "jornctl/documents.h"
#include "jornctl/failure.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>

using namespace jornctl;

namespace {

std::string refusal(const std::string &text) {
    try {
        read_document(text);
        return "";
    } catch (const refused &error) {
        return error.what();
    }
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

TEST(JornctlDocuments, RefusalsNamePathAndReason) {
    const std::string a64(64, 'a');
    const std::string rule = "/policies/0/rules/0";
    const struct {
        std::string text;
        std::string path;
        std::string reason; // a part of it
    } rows[] = {
        {"{\n  \"policies\": [,]}", "parse error at line 2, column 16", "unexpected ','"},
        {"", "parse error at line 1, column 1", "end of input"},
        {"{\"utps\": []} x", "parse error at line 1, column 14", "expected end of input"},
        {std::string("{\"utps\":\n[]} \0", 14), "line 2, column 5", "NUL"},
        {repeated("{\"policies\": [", "{}", 200'000, "]}"), "/policies", "64 have room"},
        {"[]", "the document", "must be an object"},
        {"{}", "the document", "has no table"},
        {R"({"policy": []})", "/policy", "the keys are policies, utps, applications"},
        {R"({"utps": {}})", "/utps", "must be an array"},
        {R"({"utps": [{"id": 1}, {"id": 2, "id": 3}]})", "/utps/1/id", "twice"},
        {R"({"policies": [{}]})", "/policies/0", "has no utp_id"},
        {R"({"policies": [{"utp_id": 65}]})", "/policies/0/utp_id", "from 1 to 64"},
        {R"({"utps": [{"id": 0}]})", "/utps/0/id", "from 1 to 64"},
        {R"({"utps": [{"id": 1.0}]})", "/utps/0/id", "is 1.0; it must be a whole number"},
        {R"({"utps": [{"id": -1}]})", "/utps/0/id", "is -1"},
        {R"({"utps": [{"id": 4294967297}]})", "/utps/0/id", "is 4294967297"},
        {R"({"utps": [{"id": 1, "name": ")" + a64 + R"(a"}]})", "/utps/0/name", "has 65 bytes"},
        {R"({"utps": [{"id": 1, "name": "a\u0000b"}]})", "/utps/0/name", "control"},
        {R"({"policies": [{"utp_id": 1, "attr1": 256}]})", "/policies/0/attr1", "0 to 255"},
        {repeated(R"({"policies": [{"utp_id": 1, "rules": [)", R"({"app_name": "a"})", 65, "]}]}"),
         "/policies/0/rules", "64 have room"},
        {in_rule(R"("app_id": 1)"), rule, "has no app_name"},
        {in_rule(R"("app_name": "")"), rule + "/app_name", "is empty"},
        {in_rule(R"("app_name": ")" + a64 + '"'), rule + "/app_name", "63 have room"},
        {in_rule(R"("app_name": "a,b")"), rule + "/app_name", "comma"},
        {in_rule(R"("app_name": "a", "cat_name": "b;")"), rule + "/cat_name", "semicolon"},
        {in_rule(R"("app_name": "a ")"), rule + "/app_name", "blank"},
        {in_rule(R"("app_name": "[Policy END]")"), rule + "/app_name", "[policy end]"},
        {in_rule(R"("app_name": "a\nb")"), rule + "/app_name", "control"},
        {in_rule(R"("app_name": "a", "rate_up": 65536)"), rule + "/rate_up", "0 to 65535"},
        {in_rule(R"("app_name": "a", "cat_id": "Games")"), rule + "/cat_id", "0 to 65535"},
        {in_rule(R"("app_name": "a", "deny": 2)"), rule + "/deny", "true or false"},
        {in_rule(R"("app_name": "a", "qos": {"mark": {"kind": "dscp", "type": "voice"}})"),
         rule + "/qos/mark/type", "one of Background, BestEffort, Video, Voice"},
        {in_rule(R"("app_name": "a", "qos": {"mark": {"kind": "dscp"}})"), rule + "/qos/mark",
         "has no type"},
        {R"({"policies": [{"utp_id": 1, "uuid": "ab"}, {"utp_id": 2, "uuid": "AB"}]})",
         "/policies/1/uuid", "same as in /policies/0"},
        {R"({"policies": [{"utp_id": 1}, {"utp_id": 2}, {"utp_id": 1}]})", "/policies/2/utp_id",
         "same as in /policies/0"},
        {R"({"utps": [{"id": 9}, {"id": 9}]})", "/utps/1/id", "same as in /utps/0"},
        {R"({"policies": [{"utp_id": 4, "uuid": "u"}], "utps": [{"id": 4}]})", "/utps/0",
         "takes UTP 4 away from /policies/0"},
        {repeated(R"({"applications": [)", R"({"app_name": "a"})", 33, "]}"), "/applications",
         "32 have room"},
        {in_application(R"("dst_ip": "2001:db8::1")"), "/applications/0/dst_ip", "IPv4"},
        {in_application(R"("dst_ip": "10.0.0.0/33")"), "/applications/0/dst_ip", "IPv4"},
        {in_application(R"("dst_ip": "10.0.0.0/")"), "/applications/0/dst_ip", "IPv4"},
        {in_application(R"("src_ip": "10.0.0.0/8")"), "/applications/0/src_ip", "prefix"},
        {in_application(R"("netmask": "255.0.0.0")"), "/applications/0/netmask", "needs a dst_ip"},
        {in_application(R"("dst_ip": "10.0.0.0/8", "netmask": "255.0.0.0")"),
         "/applications/0/netmask", "prefix"},
        {in_application(R"("dst_ip": "10.0.0.0", "netmask": "0.0.0.255")"),
         "/applications/0/netmask", "mask like"},
        {in_application(R"("protocol": 6)"), "/applications/0/protocol", "one of tcp, udp"},
        {in_application(R"("app_id": 1, "bitmap": 4)"), "/applications/0/bitmap", "isn't known"},
    };
    for (const auto &row : rows) {
        const std::string said = refusal(row.text);
        EXPECT_TRUE(said.starts_with(row.path + ": ")) << row.text << "\n" << said;
        EXPECT_NE(said.find(row.reason), std::string::npos) << row.text << "\n" << said;
    }
}

// The whole document is at fault: there is no path to name.
TEST(JornctlDocuments, WhatTheParserItselfCannotTakeIsRefused) {
    EXPECT_NE(refusal(R"({"policies": [{"utp_id": 1e999}]})").find("number overflow"),
              std::string::npos);
    const std::string deep = refusal(std::string(100'000, '[') + std::string(100'000, ']'));
    EXPECT_NE(deep.find("nested deeper than 64 levels"), std::string::npos);
}

TEST(JornctlDocuments, PolicyBecomesItsRecord) {
    const document read = read_document(R"({"policies": [{ // a comment
        "attr1": 1, "attr3": 3, "attr4": 255, "log_enable": true, "utp_id": 63, "name": "p",
        "uuid": "u", "rules": [
            {"app_id": 65535, "cat_id": 2, "app_name": "first", "cat_name": "c", "deny": 1,
             "rate_up": 3, "rate_down": 65535,
             "qos": {"mark": {"kind": "both", "type": "Voice"}, "classify": "BestEffort"}},
            {"app_name": "second", "cat_id": "User Defined", "qos": {"classify": "Background"}},
            {"app_name": "third", "qos": {"mark": {"kind": "dscp", "type": "Video"}}}]}]})");
    arc_policy_wire expected = {};
    expected.attr1 = 1;
    expected.attr3 = 3;
    expected.attr4 = 255;
    expected.log_enable = 1;
    expected.utp_id = 63;
    strcpy(expected.name, "p");
    strcpy(expected.uuid, "u");
    expected.rules[0] = {65535, 2, {}, "first", "c", 1, 0b01111011, 3, 65535, {}};
    expected.rules[1] = {0, 0x8000, {}, "second", "User Defined", 0, 0b00000010, 0, 0, {}};
    expected.rules[2] = {0, 0, {}, "third", "", 0, 0b00100101, 0, 0, {}};
    ASSERT_EQ(read.policies->size(), 1u);
    EXPECT_EQ(memcmp(&read.policies->front(), &expected, sizeof expected), 0);
}

TEST(JornctlDocuments, ApplicationBecomesItsRecord) {
    const document read = read_document(R"({"applications": [
        {"app_name": "net", "src_ip": "192.0.2.1", "dst_ip": "10.0.0.0/9", "src_port": 1,
         "dst_port": 65535, "protocol": "udp", "app_id": 7, "cat_id": 8},
        {"app_name": "host", "dst_ip": "10.1.2.3", "protocol": "tcp"},
        {"app_name": "mask", "netmask": "255.255.0.0", "dst_ip": "10.1.0.0"},
        {"app_name": "all", "dst_ip": "0.0.0.0/0", "cat_id": "User Defined"}]})");
    userdef_app expected = {};
    expected.src_family = expected.dst_family = 2;
    memcpy(expected.src_ip, "\xC0\x00\x02\x01", 4);
    expected.dst_ip[0] = 10;
    expected.netmask = htonl(0xFF800000);
    expected.src_port = 1;
    expected.dst_port = 65535;
    expected.protocol = 17;
    strcpy(expected.app_name, "net");
    expected.app_id = 7;
    expected.cat_id = 8;
    const std::vector<userdef_app> &apps = *read.applications;
    ASSERT_EQ(apps.size(), 4u);
    EXPECT_EQ(memcmp(&apps[0], &expected, sizeof expected), 0);
    EXPECT_EQ(apps[1].netmask, 0xFFFFFFFF);
    EXPECT_EQ(apps[1].protocol, 6u);
    EXPECT_EQ(apps[2].netmask, htonl(0xFFFF0000));
    EXPECT_EQ(apps[3].netmask, 0u);
    EXPECT_EQ(apps[3].cat_id, 0x8000);
}

TEST(JornctlDocuments, WarnsOfWhatMayNotBeMeant) {
    const std::string long_rule =
        R"({"app_id": 10000, "rate_up": 10000, "rate_down": 10000, "cat_id": 10000, "app_name": ")" +
        std::string(63, 'a') + R"(", "cat_name": ")" + std::string(31, 'c') + R"("})";
    const std::string utps_alone = "/utps: the web UTP table is emptied";
    const struct {
        std::string text;
        std::vector<std::string> begins; // of the warnings
    } rows[] = {
        {R"({"utps": [{"id": 64}]})", {utps_alone, "/utps/0/id: packets never find"}},
        {R"({"policies": [{"utp_id": 1}]})", {"/policies/0: has no rules"}},
        {repeated(R"({"policies": [{"utp_id": 1, "rules": [)", long_rule, 64, "]}]}"),
         {"/policies/0: too much text", "/policies/0/rules/"}},
        {R"({"policies": [], "utps": [{"id": 1, "uuid": "x"}]})",
         {utps_alone, "/utps/0/uuid: no policy"}},
        {in_application(R"("src_port": 9)"), {"/applications/0: every packet fits"}},
        {in_rule(R"("app_name": "a", "deny": 1, "rate_up": 1)"), {"/policies/0/rules/0/deny: "}},
        {in_rule(R"("app_name": "*.a.com")"), {"/policies/0/rules/0/app_name: never fits"}},
        {in_rule(R"("app_name": "*.a.com", "app_id": 1)"), {"/policies/0/rules/0/app_id: without"}},
        {in_rule(R"("app_name": "a.com"}, {"app_name": "www.A.com")"),
         {"/policies/0/rules/1: never decides, for what it fits fits /policies/0/rules/0"}},
        {in_rule(R"("app_name": "a", "app_id": 1, "cat_id": 0},
                    {"app_name": "b", "app_id": 1, "cat_id": 0)"),
         {"/policies/0/rules/1: never decides"}},
        {in_rule(R"("app_name": "www.a.com"}, {"app_name": "a.com"},
                    {"app_name": "a.com", "app_id": 1, "cat_id": 2)"),
         {}},
    };
    for (const auto &row : rows) {
        std::vector<std::string> expected = row.begins;
        for (const std::string &warning : read_document(row.text).warnings) {
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
    };
    for (const auto &row : rows) {
        std::vector<uint32_t> numbers;
        for (const command &each : commands_of(read_document(row.text)))
            numbers.push_back(each.number);
        EXPECT_EQ(numbers, row.numbers) << row.text;
    }
}

} // namespace
