#include "control/configuration.h"
#include "core/saved_file.h"
#include "core/shell.h"
#include "policies.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using std::string_literals::operator""s;

const std::string EMPTY = "[appPolicy]\n[appPolicy end]\n[userdef]\n[userdef end]\n";

std::string policies(const std::string &blocks) {
    return "[appPolicy]\n" + blocks + "[appPolicy end]\n[userdef]\n[userdef end]\n";
}
std::string userdefs(const std::string &lines) {
    return "[appPolicy]\n[appPolicy end]\n[userdef]\n" + lines + "[userdef end]\n";
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

    static void reset() {
        jorn_process_arc_policy_flush();
        jorn_state = {};
        jorn_state.settings.debug = 1; // the log goes to standard error
        platform = {};
    }
    // Restores the content into an empty state and returns the log.
    static std::string restore(const std::string &content) {
        reset();
        FILE *file = tmpfile();
        fwrite(content.data(), 1, content.size(), file);
        rewind(file);
        testing::internal::CaptureStderr();
        restore_configuration(file, "the file");
        fclose(file);
        return testing::internal::GetCapturedStderr();
    }
    static std::string written() {
        char *text = nullptr;
        size_t size = 0;
        FILE *file = open_memstream(&text, &size);
        EXPECT_EQ(jorn_write_arc_policy_configuration(file), 0);
        EXPECT_EQ(jorn_write_userdef_configuration(file), 0);
        fclose(file);
        std::string content(text, size);
        free(text);
        return content;
    }
    static size_t policy_count() {
        size_t count = 0;
        for (const arc_policy *p = jorn_state.arc_policy_list; p != nullptr; p = p->next)
            ++count;
        return count;
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
    EXPECT_EQ(written(), text);
    arc_policy *policy = jorn_state.arc_policy_list;
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

TEST_F(Configuration, FilesEditedByHand) {
    const std::string block = "[policy]\n1;2;3;4;5;\n6,7,n,c,1,1,1,1,1,1,8,9;\n[policy end]\n\n";
    const std::string rule = "0,0,r,,0,0,0,0,0,0,0,0;\n";
    const struct {
        const char *what;
        std::string content;
        std::string result; // the file as it is written afterwards
    } rows[] = {
        {"letter case and text around markers",
         "x[APPPOLICY]\r\n [pOLICY] x\n1;2;3;4;5;\n6,7,n,c,1,1,1,1,1,1,8,9;\n<[POLICY END]>\n"
         "[APPPOLICY END]\n[USERDEF]\n0;0;0;0;0;0;80;6;1;2;n;24;\n[userDEF end]\nx",
         "[appPolicy]\n" + block +
             "[appPolicy end]\n[userdef]\n0;0;0;0;0;0;80;6;1;2;n;24;\n[userdef end]\n"},
        {"no [appPolicy]: nothing counts", block + "[appPolicy end]\n[userdef]\n1;\n[userdef end]",
         EMPTY},
        {"no [policy end]: the next block becomes rules",
         policies("[policy]\n0;0;0;0;1;\n" + rule + block),
         policies("[policy]\n0;0;0;0;1;\n" + rule + block.substr(block.find("6,7")))},
        {"70 rules, and the counter starts anew",
         policies("[policy]\n0;0;0;0;1;\n" + repeated(rule, 70) + "[policy end]\n" + block),
         policies("[policy]\n0;0;0;0;1;\n" + repeated(rule, 64) + "[policy end]\n\n" + block)},
        {"spaces, short header, values too large, words for numbers",
         policies("[policy]\n 257 ;\r;3\n 65537, x ,\r n ,c , 256,3,2,7,-1,four,99999,1x\n"
                  "[policy end]\n"),
         policies("[policy]\n1;0;3;0;0;\n1,0,n,c,0,1,0,3,3,0,34463,1;\n[policy end]\n\n")},
        {"applications: wrong types, too few and too many fields",
         userdefs("2;x;2;-1;1e3;0;0;0;0;0; n \r;9;9;9\n\n3;7;4;7;5\n"),
         userdefs("2;0;2;-1;1;0;0;0;0;0;n;9;\n0;0;0;0;0;0;0;0;0;0;;0;\n3;3;4;0;5;0;0;0;0;0;;0;\n")},
        {"a line of 9,000 characters, NUL bytes",
         policies("[policy]\n0;0;0;0;1;\n0,0," + std::string(9000, 'x') + ",c,1\n0,0,a\0b,c,1\n"s +
                  "[policy end]\n"),
         policies("[policy]\n0;0;0;0;1;\n0,0," + std::string(63, 'x') +
                  ",,0,0,0,0,0,0,0,0;\n0,0,a,,0,0,0,0,0,0,0,0;\n[policy end]\n\n")},
    };
    for (const auto &row : rows) {
        restore(row.content);
        EXPECT_EQ(written(), row.result) << row.what;
    }
}

TEST_F(Configuration, CutAnywhereRestoresWhatIsWhole) {
    const std::string block = "[policy]\n0;0;0;0;1;\n1,2,n,c,0,0,0,0,0,0,0,0;\n[policy end]\n\n";
    const std::string whole = "[appPolicy]\n" + block + block + "[appPolicy end]\n[userdef]\n" +
                              repeated("0;0;0;0;0;0;80;6;1;2;n;24;\n", 2) + "[userdef end]";
    for (size_t length = 0; length <= whole.size(); ++length) {
        const std::string content = whole.substr(0, length);
        const bool complete = length == whole.size();
        const std::string log = restore(content);
        EXPECT_EQ(policy_count(), occurrences(content, "[policy end]")) << length;
        EXPECT_EQ(jorn_state.userdef_apps.count, complete ? 2 : 0) << length;
        EXPECT_EQ(jorn_state.userdef_apps.records[0].dst_port, complete ? 80 : 0) << length;
        EXPECT_EQ(occurrences(log, ") the file ends early"), complete ? 0u : 1u) << length;
    }
}

TEST_F(Configuration, The33rdApplicationIsIgnoredWithOneLine) {
    const std::string line = "0;0;0;0;0;0;80;6;1;2;n;24;\n";
    const std::string log = restore(userdefs(repeated(line, 35)));
    EXPECT_EQ(occurrences(log, "more than 32 user-defined applications"), 1u);
    EXPECT_EQ(jorn_state.port_apps.head, nullptr); // what follows the table in the state block
    EXPECT_EQ(written(), userdefs(repeated(line, 32)));
}

TEST_F(Configuration, BlockStaysBelow8096Characters) {
    arc_policy_wire policy = {};
    for (arc_rule &rule : policy.rules) {
        memset(rule.app_name, 'a', 63);
        memset(rule.cat_name, 'c', 31);
    }
    char text[ARC_BLOCK_LIMIT + 1] = {};
    size_t length = 0;
    ASSERT_EQ(jorn_format_arc_policy(text, &policy, &length, ARC_BLOCK_LIMIT), 0);
    // Longer numbers fill the rest of the room.
    size_t missing = ARC_BLOCK_LIMIT - 1 - length;
    for (arc_rule &rule : policy.rules) {
        for (uint16_t *number : {&rule.app_id, &rule.cat_id, &rule.rate_up}) {
            if (missing >= 4) {
                *number = 10000;
                missing -= 4;
            }
        }
    }
    const uint16_t last[] = {0, 10, 100, 1000};
    ASSERT_LT(missing, std::size(last));
    policy.rules[0].rate_down = last[missing];
    add_policy(policy);
    add_policy(7);
    EXPECT_EQ(written().size(), policies("[policy]\n0;0;0;0;7;\n[policy end]\n\n").size() + 8095);
    jorn_state.arc_policy_list->utp_id = 10;
    EXPECT_EQ(written(), policies("[policy]\n0;0;0;0;7;\n[policy end]\n\n"));
}

TEST_F(Configuration, FullDiskIsNoticedAtTheFirstWrite) {
    testing::internal::CaptureStderr();
    FILE *file = fopen("/dev/full", "w");
    EXPECT_EQ(jorn_write_arc_policy_configuration(file), -9);
    EXPECT_EQ(jorn_write_userdef_configuration(file), -9);
    fclose(file);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(occurrences(log, "(No space left on device) write configuration file error!\n"), 1u);
    EXPECT_EQ(occurrences(log, "(No space left on device) write to configuration file error!\n"),
              1u);
}

TEST_F(Configuration, SavedFilesAreCreatedAnewAndRemovedWhenUnreadable) {
    char root[] = "/tmp/jorn_saved_XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    const std::string directory = root + "/a/b"s;
    const std::string path = directory + "/file";
    for (const char *text : {"longer", "short"}) {
        FILE *file = create_saved_file(directory.c_str(), path.c_str(), "f");
        ASSERT_NE(file, nullptr);
        EXPECT_TRUE(write_flushed(file, text));
        fclose(file);
    }
    EXPECT_EQ(std::filesystem::file_size(path), 5u);

    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0); // nobody can open one, not even root
    sockaddr_un address = {AF_UNIX, {}};
    strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(fd);
    EXPECT_EQ(open_saved_file(path.c_str(), "f"), nullptr);
    EXPECT_FALSE(saved_file_exists(path.c_str()));
    std::filesystem::remove_all(root);
}

TEST_F(Configuration, VisibilityGoesOnWhereItIsAskedFor) {
    const auto switched = [](const fake_platform &answers) {
        platform = answers;
        enable_visibility();
        std::string calls;
        for (const std::string &call : platform.calls) {
            if (!call.starts_with("psm_wlan_pgetAvcEn"))
                calls += call + " ";
        }
        return calls;
    };
    fake_platform asking;
    asking.avc_enable = {{"wlan0", 1}, {"wlan63", 2}, {"wlan64", 1}};
    EXPECT_EQ(switched(asking),
              "psm_beginXact() psm_jor_mem_support() psms_av_set_dev_av(wlan0, 1) "
              "psm_jor_mem_support() psms_av_set_dev_av(wlan63, 2) "
              "psm_cancelXact() ");
    fake_platform small = asking;
    small.mem_support = 1;
    EXPECT_EQ(switched(small), "psm_beginXact() psm_jor_mem_support() psm_jor_mem_support() "
                               "psm_cancelXact() ");
    fake_platform absent = asking;
    absent.begin_xact_result = -1;
    EXPECT_EQ(switched(absent), "psm_beginXact() ");
}

TEST(Shell, TakesOnlyTextThatMeansItself) {
    for (const char *plain : {"", "Wendle_1.2~rc+3-A.bin", "6.1.0-18-amd64"})
        EXPECT_TRUE(is_plain_to_shell(plain)) << plain;
    for (const char *odd :
         {"a b", "a;b", "$(x)", "`x`", "a/b", "a\n", "a'b", "\xC3\xA9", "a>b", "*"})
        EXPECT_FALSE(is_plain_to_shell(odd)) << odd;
}

} // namespace
