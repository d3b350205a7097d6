#include "control/files/arc_section.h"
#include "control/files/configuration.h"
#include "support/fresh_state.h"
#include "support/policies.h"
#include "support/saved_folder.h"

#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const std::string EMPTY = "[appPolicy]\n[appPolicy end]\n[userdef]\n[userdef end]\n";

std::string policies(const std::string &blocks) {
    return "[appPolicy]\n" + blocks + "[appPolicy end]\n[userdef]\n[userdef end]\n";
}
std::string repeated(const std::string &text, int times) {
    std::string all;
    while (times-- > 0)
        all += text;
    return all;
}
size_t occurrences(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        ++count;
    return count;
}

class Configuration : public testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }

    static const saved_folder &folder() {
        static const saved_folder own;
        return own;
    }
    static void reset() {
        jorn_process_arc_policy_flush();
        fresh_state();
        folder().use();
        jorn_settings.debug = 1; // the log goes to standard error
    }
    // Restores the content into an empty state and returns the log.
    static std::string restore(const std::string &content) {
        reset();
        folder().write(APPLICATION_POLICY_FILE, content);
        testing::internal::CaptureStderr();
        EXPECT_TRUE(restore_configuration());
        return testing::internal::GetCapturedStderr();
    }
    static std::string written() {
        jorn_save_configuration();
        return folder().read(APPLICATION_POLICY_FILE);
    }
};

TEST_F(Configuration, ByteForByteAndBack) {
    const std::string rule = "0,0,example.com,User Defined,0,1,0,2,0,1,0,0;\n";
    const std::string head =
        "[appPolicy]\n[policy]\n255;3;4;1;63;\n65535,32768,A;b,,200,0,1,1,3,2,65535,7;\n";
    const std::string middle =
        "[appPolicy end]\n[userdef]\n"
        "2;16777226;2;-16734016;16777215;65535;8080;17;40000;1;My App, too;31;\n10;10;10;";
    const std::string tail = ";-2147483648;0;0;-1;0;0;;200;\n[userdef end]\n";
    const std::string text = head + rule + "[policy end]\n\n" + middle + "0" + tail;

    const std::string log = restore(text);
    EXPECT_EQ(occurrences(log, "userdef : 2\n"), 1u);
    EXPECT_EQ(occurrences(log, "ends early"), 0u);
    std::set<std::string> places; // what a line of the log begins with leads to one text
    for (const char *says : {"appPolicy start", "Policy start", "Policy end", "appPolicy end"}) {
        const size_t end = log.find(std::string(": 0 (Debug) ") + says);
        const size_t begin = log.rfind('\n', end) + 1;
        places.insert(log.substr(begin, end - begin));
    }
    EXPECT_EQ(places.size(), 4u) << log;
    EXPECT_EQ(written(), text);
    arc_policy *policy = jorn_state.arc_policy_list.head;
    ASSERT_NE(policy, nullptr);
    EXPECT_EQ(jorn_state.arc_utp_table[62].policy, policy);
    EXPECT_EQ(policy->attr4, 4);
    EXPECT_EQ(policy->rules[0].qos, 0xB6);
    EXPECT_EQ(policy->rules[0].rate_down, 7);
    userdef_app(&defined)[USERDEF_APPS_MAX] = jorn_state.userdef_apps.records;
    EXPECT_EQ(memcmp(defined[0].dst_ip, "\xC0\xA8\x00\xFF", 4), 0);
    EXPECT_EQ(defined[1].protocol, 0xFFFFFFFF);

    // What the daemon holds and a restart doesn't bring back: free slots between rules, a policy
    // without rules, an address that isn't IPv4.
    std::swap(policy->rules[1], policy->rules[63]);
    add_policy(0xFFFFFFFF);
    defined[1].dst_ip[0] = 1;
    const std::string fuller = written();
    EXPECT_EQ(fuller, head + rule + "[policy end]\n\n[policy]\n0;0;0;0;-1;\n[policy end]\n\n" +
                          middle + "1" + tail);
    restore(fuller);
    EXPECT_EQ(written(), text);
    restore("");
    EXPECT_EQ(written(), EMPTY);
}

TEST_F(Configuration, CutAnywhereRestoresWhatIsWhole) {
    const std::string block = "[policy]\n0;0;0;0;1;\n1,2,n,c,0,0,0,0,0,0,0,0;\n[policy end]\n\n";
    const std::string whole = "[appPolicy]\n" + block + block + "[appPolicy end]\n[userdef]\n" +
                              repeated("0;0;0;0;0;0;80;6;1;2;n;24;\n", 2) + "[userdef end]";
    for (size_t length = 0; length <= whole.size(); ++length) {
        const std::string content = whole.substr(0, length);
        const bool complete = length == whole.size();
        const std::string log = restore(content);
        EXPECT_EQ(jorn_state.arc_policy_list.count, occurrences(content, "[policy end]")) << length;
        EXPECT_EQ(jorn_state.userdef_apps.count, complete ? 2 : 0) << length;
        EXPECT_EQ(jorn_state.userdef_apps.records[0].dst_port, complete ? 80 : 0) << length;
        EXPECT_EQ(occurrences(log, " ends early, "), complete ? 0u : 1u) << length;
    }
}

TEST_F(Configuration, Holds1024Policies) {
    const std::string block = "[policy]\n0;0;0;0;1;\n1,2,n,c,0,0,0,0,0,0,0,0;\n[policy end]\n\n";
    const std::string log = restore(policies(repeated(block, 1026)));
    EXPECT_EQ(jorn_state.arc_policy_list.count, 1024u);
    EXPECT_EQ(occurrences(log, "1024 ARC policies, one more is refused"), 1u);
    const uint64_t calls = platform.calls;
    const arc_policy_wire more = {};
    EXPECT_EQ(__arc_policy_add_end(&more), -1);
    EXPECT_EQ(jorn_state.arc_policy_list.count, 1024u);
    EXPECT_EQ(platform.calls, calls);
}

TEST_F(Configuration, BlockStaysBelow8096Characters) {
    arc_policy_wire policy = {};
    for (arc_rule &rule : policy.rules) {
        memset(rule.app_name, 'a', 63);
        memset(rule.cat_name, 'c', 31);
    }
    const auto length = [&policy] {
        char text[2 * ARC_BLOCK_LIMIT];
        size_t used = 0;
        EXPECT_EQ(jorn_format_arc_policy(text, &policy, &used, sizeof text), 0);
        return used;
    };
    // Longer numbers fill the rest of the room.
    for (arc_rule &rule : policy.rules) {
        for (uint16_t *number : {&rule.app_id, &rule.cat_id, &rule.rate_up}) {
            while (*number < 10000 && length() < ARC_BLOCK_LIMIT - 1)
                *number = *number == 0 ? 10 : *number * 10;
        }
    }
    ASSERT_EQ(length(), ARC_BLOCK_LIMIT - 1);
    add_policy(policy);
    add_policy(7);
    EXPECT_EQ(written().size(), policies("[policy]\n0;0;0;0;7;\n[policy end]\n\n").size() + 8095);
    jorn_state.arc_policy_list.head->utp_id = 10;
    EXPECT_EQ(written(), policies("[policy]\n0;0;0;0;7;\n[policy end]\n\n"));
}

} // namespace
