#include "control/commands.h"

#include "control/files/configuration.h"
#include "control/priority.h"
#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/base/reply.h"
#include "core/dns/dns_cache.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"

#include <cstring>

namespace {

// One command as its handler sees it.
struct command {
    int fd;
    const uint8_t *payload; // COMMAND_PAYLOAD_SIZE bytes, zeros behind the received ones
    size_t received;        // of the payload

    uint32_t word(size_t offset = 0) const {
        uint32_t value;
        memcpy(&value, payload + offset, sizeof value);
        return value;
    }
    const char *text() const { return reinterpret_cast<const char *>(payload); }
};

using handler = void (*)(const command &);
using follow_up = void (*)();

struct command_row {
    uint32_t number;
    const char *name;
    handler run;
    follow_up then;
};

// What a row holds whose handler or file isn't part of the daemon yet: the command does what an
// unassigned number does.
constexpr handler NOT_YET = nullptr;
constexpr follow_up NOTHING = nullptr;
constexpr follow_up SAVE_APPLICATION_POLICIES = jorn_save_configuration;
constexpr follow_up SAVE_WEB_FILTER = nullptr;
constexpr follow_up SAVE_WIFICALLING = nullptr;

constexpr size_t LOG_CFG_VALUE_OFFSET = 68;

void process_debug_cfg(const command &c) {
    jorn_settings.debug = static_cast<uint8_t>(c.word());
}

void jorn_process_ut_case(const command &c) {
    const auto test_id = static_cast<int>(c.word());
    JORN_INFO("Test Id = %d\n", test_id);
    JORN_ERROR("Unknown testid = %d\n", test_id);
}

// A table that promises more records than came would be completed with empty ones.
void process_userdef_policy_cfg(const command &c) {
    const auto count = static_cast<int32_t>(c.word());
    if (count > 0 && count <= USERDEF_APPS_MAX &&
        c.received < sizeof count + static_cast<size_t>(count) * sizeof(userdef_app)) {
        JORN_ERROR_AS("jorn_process_cmd_userdef_policy_cfg_req",
                      "%d user-defined applications don't fit into %zu bytes\n", count, c.received);
        return;
    }
    jorn_process_cmd_userdef_policy_cfg_req(c.payload);
}

void process_arc_policy_log_cfg(const command &c) {
    jorn_process_arc_policy_log_cfg(c.fd, c.text(), c.word(LOG_CFG_VALUE_OFFSET));
}

constexpr command_row COMMANDS[] = {
    {4, "CMD_CHECK_PRIORITY_REQ",
     [](const command &c) { jorn_process_cmd_check_priority(c.fd, c.word()); }, NOTHING},
    {6, "CMD_POLICY_USERDEF_CFG_REQ", process_userdef_policy_cfg, SAVE_APPLICATION_POLICIES},
    {7, "CMD_USERDEF_SHOW_REQ", NOT_YET, NOTHING},
    {8, "CMD_POLICY_CLEAN", [](const command &) { jorn_process_cmd_policy_clean(); }, NOTHING},
    {9, "CMD_ROAM_NOTIFY_REQ", NOT_YET, NOTHING},
    {10, "CMD_DNS_CACHE_SHOW_REQ", [](const command &c) { jorn_dnscache_show(c.fd); }, NOTHING},
    {13, "CMD_PORT_SERVICE_CFG_REQ",
     [](const command &) { jorn_process_cmd_port_service_cfg_req(); }, NOTHING},
    {14, "CMD_PORT_APP_SHOW_REQ", NOT_YET, NOTHING},
    {17, "CMD_WRITE_CFG_REQ", [](const command &c) { jorn_process_cmd_write_cfg(c.fd); }, NOTHING},
    {20, "CMD_ARC_UTP_CFG_REQ", [](const command &c) { jorn_process_arc_config(c.payload); },
     SAVE_APPLICATION_POLICIES},
    {21, "CMD_WEB_UTP_CFG_REQ", NOT_YET, SAVE_APPLICATION_POLICIES},
    {22, "CMD_UTP_FLUSH_REQ", [](const command &) { jorn_process_utp_flush(); }, NOTHING},
    {23, "CMD_ARC_POLICY_CFG_REQ", [](const command &c) { __arc_policy_add_end(c.payload); },
     SAVE_APPLICATION_POLICIES},
    {24, "CMD_ARC_POLICY_FLUSH_REQ", [](const command &) { jorn_process_arc_policy_flush(); },
     NOTHING},
    {25, "CMD_UTP_SHOW_REQ", NOT_YET, NOTHING},
    {26, "CMD_ARC_POLICY_LOG_CFG_REQ", process_arc_policy_log_cfg, SAVE_APPLICATION_POLICIES},
    {28, "CMD_WEB_POLICY_CFG_REQ", NOT_YET, SAVE_WEB_FILTER},
    {29, "CMD_WEB_POLICY_FLUSH_REQ", NOT_YET, NOTHING},
    {30, "CMD_WEB_INTF_CFG_REQ", NOT_YET, SAVE_WEB_FILTER},
    {31, "CMD_UF_AGENT_REPLY", NOT_YET, NOTHING},
    {32, "CMD_INTF_URL_POLICY_SHOW_REQ", NOT_YET, NOTHING},
    {33, "CMD_UTP_WEB_POLICY_SHOW_REQ", NOT_YET, NOTHING},
    {34, "CMD_DEBUG_CFG_REQ", process_debug_cfg, NOTHING},
    {35, "CMD_WIFICALLING_POLICY_CFG_REQ", NOT_YET, SAVE_WIFICALLING},
    {36, "CMD_WIFICALLING_INTF_CFG_REQ", NOT_YET, SAVE_WIFICALLING},
    {37, "CMD_WIFICALLING_INTF_SHOW_REQ", NOT_YET, NOTHING},
    {38, "CMD_WIFICALLING_POLICY_FLUSH_REQ", NOT_YET, NOTHING},
    {39, "CMD_UT_CASE_REQ", jorn_process_ut_case, NOTHING},
};

} // namespace

void run_command(int fd, const uint8_t *message, size_t received) {
    if (received < COMMAND_NUMBER_END)
        return;
    cmd_msg_hdr header;
    memcpy(&header, message, sizeof header);
    const size_t payload_size = received > sizeof header ? received - sizeof header : 0;
    const command request = {fd, message + sizeof header, payload_size};
    for (const command_row &row : COMMANDS) {
        if (row.number != header.cmd || row.run == NOT_YET)
            continue;
        row.run(request);
        if (row.then != NOTHING)
            row.then();
        return;
    }
}

int jorn_process_cmd_write_cfg(int fd) {
    jorn_save_configuration();
    line_buffer reply = start_reply();
    reply.append("\n====JORN write configuration====\n");
    send_reply(fd, reply);
    return 0;
}
