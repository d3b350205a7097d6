#include "jornctl/base/failure.h"
#include "jornctl/base/files.h"
#include "jornctl/client/client.h"
#include "jornctl/documents/port_services.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace jornctl;

namespace {

TEST(JornctlPortServices, LinesThatTheDaemonWouldSkip) {
    const std::string name_field(2'000, 'n');
    const struct {
        std::string line;
        std::string reason; // a part of it; empty: the daemon takes the line
    } rows[] = {
        {"8443,tcp,4,1201,Intranet-Portal", ""},
        {",,8443,,tcp,4,,1201,Portal,more,fields", ""},
        {"WDL_PORT_SERVICE_FILE_VER:1.0", ""},
        {"80,tcp,4,1201," + name_field, ""}, // cut, and taken
        {"65535,tcp,4,1201,Portal", "no port"},
        {"80,icmp,4,1201,Portal", "neither tcp nor udp"},
        {"80,tcp,,1201,Portal", "no application name"},
        {" \t\r", "skipped, a blank"},
        {"# 80,tcp,4,1201,Portal", "skipped, a blank line or a comment"},
        {std::string("80,tcp,4\0,1201,a", 17), "no application name"},
    };
    for (const auto &row : rows) {
        // Between good lines, the last of them without a line feed.
        const auto faults = check_port_services("1,tcp,1,1,a\n" + row.line + "\n2,tcp,1,1,b");
        ASSERT_EQ(faults.size(), row.reason.empty() ? 0u : 1u) << row.line;
        if (!row.reason.empty()) {
            EXPECT_EQ(faults[0].line, 2u) << row.line;
            EXPECT_NE(faults[0].reason.find(row.reason), std::string::npos) << faults[0].reason;
            EXPECT_EQ(faults[0].is_meant, row.reason.starts_with("skipped")) << row.line;
        }
    }
}

TEST(JornctlPortServices, UpdatesTakeNoEntryUntilTheListIsFull) {
    std::string full = "1,udp,1,1,other-protocol\n1,UDP,2,2,update\n";
    for (int port = 1; port <= 1024; ++port)
        full += std::to_string(port) + ",tcp,1,1,a\n";
    EXPECT_TRUE(check_port_services(full).empty());
    EXPECT_EQ(check_port_services(full + "bad\n").size(), 1u);
    for (const char *const extra : {"1025,tcp,1,1,new\n", "1,tcp,1,1,update\n"}) {
        const auto faults = check_port_services(full + extra + "bad\n\n");
        ASSERT_EQ(faults.size(), 1u) << extra;
        EXPECT_EQ(faults[0].line, 1027u);
        EXPECT_NE(faults[0].reason.find("after 1025 entries, where the daemon stops reading; "
                                        "it is followed by 2 more"),
                  std::string::npos);
    }
}

TEST(JornctlFiles, ReplacesWholeOrLeavesNothingBeside) {
    std::string folder = testing::TempDir() + "jornctl_files.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::filesystem::path root = folder;
    const std::filesystem::path target = root / "a" / "file";
    replace_file(target, "old");
    replace_file(target, "new");
    EXPECT_EQ(read_file(target), "new");
    // A directory with something in it can't be renamed over.
    EXPECT_THROW(replace_file(root / "a", "x"), refused);
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root))
        EXPECT_TRUE(entry.path() == target || entry.path() == root / "a") << entry.path();
    std::filesystem::remove_all(root);
}

TEST(JornctlClient, AMessageHasItsLimit) {
    EXPECT_NO_THROW(make_message({5, std::string(122'860, 'x')}));
    EXPECT_THROW(make_message({5, std::string(122'861, 'x')}), refused);
}

} // namespace
