// The commands of the command socket by their numbers. The daemon's table (control/commands.cpp)
// has a row for each of them; the numbers between them are unassigned.
#pragma once

#include <cstdint>

enum command_number : uint32_t {
    CMD_CHECK_PRIORITY_REQ = 4,
    CMD_POLICY_USERDEF_CFG_REQ = 6,
    CMD_USERDEF_SHOW_REQ = 7,
    CMD_POLICY_CLEAN = 8,
    CMD_ROAM_NOTIFY_REQ = 9,
    CMD_DNS_CACHE_SHOW_REQ = 10,
    CMD_PORT_SERVICE_CFG_REQ = 13,
    CMD_PORT_APP_SHOW_REQ = 14,
    CMD_WRITE_CFG_REQ = 17,
    CMD_ARC_UTP_CFG_REQ = 20,
    CMD_WEB_UTP_CFG_REQ = 21,
    CMD_UTP_FLUSH_REQ = 22,
    CMD_ARC_POLICY_CFG_REQ = 23,
    CMD_ARC_POLICY_FLUSH_REQ = 24,
    CMD_UTP_SHOW_REQ = 25,
    CMD_ARC_POLICY_LOG_CFG_REQ = 26,
    CMD_WEB_POLICY_CFG_REQ = 28,
    CMD_WEB_POLICY_FLUSH_REQ = 29,
    CMD_WEB_INTF_CFG_REQ = 30,
    CMD_UF_AGENT_REPLY = 31,
    CMD_INTF_URL_POLICY_SHOW_REQ = 32,
    CMD_UTP_WEB_POLICY_SHOW_REQ = 33,
    CMD_DEBUG_CFG_REQ = 34,
    CMD_WIFICALLING_POLICY_CFG_REQ = 35,
    CMD_WIFICALLING_INTF_CFG_REQ = 36,
    CMD_WIFICALLING_INTF_SHOW_REQ = 37,
    CMD_WIFICALLING_POLICY_FLUSH_REQ = 38,
    CMD_UT_CASE_REQ = 39,
};
