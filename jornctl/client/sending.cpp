#include "jornctl/client/sending.h"

#include "control/records/commands.h"
#include "jornctl/base/failure.h"
#include "jornctl/client/listings.h"

#include <algorithm>
#include <array>
#include <span>
#include <string>

namespace jornctl {
namespace {

void send_one(const command &sent, const client &daemon) {
    const std::string reply = daemon.send(sent);
    if (sent.number == CMD_WRITE_CFG_REQ)
        check_answer(reply, CMD_WRITE_CFG_REQ);
}

// Sent twice they leave what they leave when sent once: each record comes into an emptied list.
bool are_repeatable(std::span<const command> sent) {
    constexpr struct {
        uint32_t record;
        std::array<uint32_t, 2> flushes;
    } lists[] = {
        {CMD_ARC_POLICY_CFG_REQ, {CMD_POLICY_CLEAN, CMD_ARC_POLICY_FLUSH_REQ}},
        {CMD_WEB_POLICY_CFG_REQ, {CMD_WEB_POLICY_FLUSH_REQ, CMD_WEB_POLICY_FLUSH_REQ}},
        {CMD_WIFICALLING_POLICY_CFG_REQ,
         {CMD_WIFICALLING_POLICY_FLUSH_REQ, CMD_WIFICALLING_POLICY_FLUSH_REQ}},
    };
    return std::ranges::all_of(lists, [&](const auto &list) {
        const auto record = std::ranges::find(sent, list.record, &command::number);
        return record == sent.end() ||
               std::ranges::find_first_of(sent.begin(), record, list.flushes.begin(),
                                          list.flushes.end(), {}, &command::number) != record;
    });
}

// The first few go together where they may. Counts what is sent.
void send_group(const command_group &group, const client &daemon, size_t &so_far) {
    const std::vector<command> first(
        group.begin(),
        group.begin() + static_cast<std::ptrdiff_t>(std::min(group.size(), COMMANDS_TOGETHER)));
    size_t done = 0;
    if (first.size() > 1 && are_repeatable(first))
        done = daemon.send_together(first) ? first.size() : 0;
    so_far += done;
    for (; done < group.size(); ++done, ++so_far)
        send_one(group[done], daemon);
}

} // namespace

size_t count_of(const std::vector<command_group> &groups) {
    size_t count = 0;
    for (const command_group &group : groups)
        count += group.size();
    return count;
}

void send_all(const std::vector<command_group> &groups, const client &daemon) {
    size_t so_far = 0;
    try {
        for (const command_group &group : groups)
            send_group(group, daemon, so_far);
    } catch (const no_daemon &reason) {
        // One that failed may have been taken, the first one, too.
        throw no_daemon(reason.what() + std::string("; the tables may be half made (") +
                        std::to_string(so_far) + " of " + std::to_string(count_of(groups)) +
                        " commands sent), apply again");
    }
}

} // namespace jornctl
