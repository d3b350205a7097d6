// The daemon's commands as jornctl knows them: numbers, names, and what their payloads hold, by the
// rows that documents are read by.
#pragma once

#include "jornctl/client.h"

#include <cstdint>
#include <string>
#include <vector>

namespace jornctl {

inline constexpr uint32_t CMD_CHECK_PRIORITY_REQ = 4;
inline constexpr uint32_t CMD_POLICY_USERDEF_CFG_REQ = 6;
inline constexpr uint32_t CMD_POLICY_CLEAN = 8;
inline constexpr uint32_t CMD_DNS_CACHE_SHOW_REQ = 10;
inline constexpr uint32_t CMD_PORT_SERVICE_CFG_REQ = 13;
inline constexpr uint32_t CMD_WRITE_CFG_REQ = 17;
inline constexpr uint32_t CMD_ARC_UTP_CFG_REQ = 20;
inline constexpr uint32_t CMD_UTP_FLUSH_REQ = 22;
inline constexpr uint32_t CMD_ARC_POLICY_CFG_REQ = 23;
inline constexpr uint32_t CMD_ARC_POLICY_FLUSH_REQ = 24;
inline constexpr uint32_t CMD_ARC_POLICY_LOG_CFG_REQ = 26;
inline constexpr uint32_t CMD_DEBUG_CFG_REQ = 34;
inline constexpr uint32_t CMD_UT_CASE_REQ = 39;

// The payload of commands that carry one number: an id or a switch.
struct word_payload {
    uint32_t word;
};

struct log_policy_payload {
    char name[68]; // of the first policy with it; a policy's own name has 64 characters at most
    uint32_t enable;
};
static_assert(sizeof(log_policy_payload) == 72);

// Whether the commands leave a file of the daemon behind its tables that CMD_WRITE_CFG_REQ would
// bring up to date.
bool leave_file_behind(const std::vector<command> &commands);

// Number, name, length and the fields as words, in JSON. Throws refused for a number that jornctl
// doesn't know.
std::string describe(const command &sent);

} // namespace jornctl
