#include "control/commands.h"
#include "control/files/configuration.h"
#include "core/base/reply.h"
#include "core/state/state.h"
#include "fresh_state_fixture.h"
#include "support/saved_folder.h"

#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Runs one command as cmdsock_accept does and returns its reply.
std::string run(uint32_t number, const std::vector<uint8_t> &payload = {}) {
    std::vector<uint8_t> message(COMMAND_MESSAGE_SIZE);
    cmd_msg_hdr header = {};
    header.cmd = number;
    header.len = static_cast<uint32_t>(payload.size());
    memcpy(message.data(), &header, sizeof header);
    if (!payload.empty())
        memcpy(message.data() + sizeof header, payload.data(), payload.size());

    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    run_command(ends[0], message.data(), sizeof header + payload.size());
    close(ends[0]);
    std::string reply;
    char piece[4096];
    for (ssize_t n; (n = read(ends[1], piece, sizeof piece)) > 0;)
        reply.append(piece, static_cast<size_t>(n));
    close(ends[1]);
    return reply;
}

std::vector<uint8_t> word(uint32_t value) {
    std::vector<uint8_t> bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

using Commands = FreshState;

TEST_F(Commands, PriorityListingWordForWord) {
    arc_policy_wire policy = {};
    policy.utp_id = 12;
    strcpy(policy.name, "Office");
    policy.rules[0] = {1042, 7, {}, "Chat", "Messaging", 1, 0, 0, 0, {}};
    // A free slot, then marking "both"/Voice with classification Video, then an inapplicable kind.
    policy.rules[2] = {0, 0x8000, {}, "intranet", "User Defined", 0, 0xBB, 0, 500, {}};
    policy.rules[3] = {0, 0, {}, "odd", "", 0, 0x0D, 0, 0, {}};
    add_policy(policy);
    EXPECT_EQ(run(4, word(12)),
              "\n ARC Policy Name: Office \n"
              "\tApp Id:1042\tCat Id:7\n\tApp Name:Chat \tCat Name:Messaging\n\tRule:Deny \n\n"
              "\tApp Id:0\tCat Id:32768 (User Defined)\n"
              "\tApp Name:intranet \tCat Name:User Defined\n"
              "\tQoS mark pri:both\tQoS mark type:Voice\n"
              "\tQoS classify pri:Priority\tQoS classify type:Video\n"
              "\tRatelimit Uplink:0\tRatelimit Downlink:500\n\n"
              "\tApp Id:0\tCat Id:0\n\tApp Name:odd \tCat Name:\n"
              "\tQoS mark pri:\tQoS mark type:Background\n\n");
    for (const uint32_t id : {0u, 13u, 65u})
        EXPECT_EQ(run(4, word(id)), "\n Invalid ARC PCY ID \n");
}

TEST_F(Commands, ShortAndUnassignedMessagesChangeNothing) {
    std::vector<uint8_t> message(COMMAND_MESSAGE_SIZE, 23);
    run_command(-1, message.data(), COMMAND_NUMBER_END - 1);
    for (const uint32_t number : {0u, 3u, 5u, 27u, 40u, 0xFFFFFFFFu})
        EXPECT_EQ(run(number, std::vector<uint8_t>(7352, 1)), "");
    EXPECT_TRUE(jorn_state.arc_policy_list.empty());
    EXPECT_TRUE(platform.calls.empty());
}

TEST_F(Commands, FileFollowsTheCommandsThatChangeItRefusedOnesToo) {
    const saved_folder folder;
    const auto saves = [&](uint32_t number) {
        std::filesystem::remove(folder.path_of(APPLICATION_POLICY_FILE));
        run(number);
        return !folder.read(APPLICATION_POLICY_FILE).empty();
    };
    for (const uint32_t number : {6u, 20u, 23u, 26u, 17u})
        EXPECT_TRUE(saves(number)) << number;
    for (const uint32_t number : {8u, 22u, 24u, 34u})
        EXPECT_FALSE(saves(number)) << number;
}

TEST(Reply, IsCutAtAWholeLineAndStaysCut) {
    char text[16];
    line_buffer reply(text, sizeof text);
    reply.append("one\n");
    reply.append("two ");
    reply.append("is much too long\n");
    reply.append("x\n");
    EXPECT_EQ(reply.text(), "one\n");
    EXPECT_STREQ(text, "one\n");
}

} // namespace
