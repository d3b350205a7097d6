#include "control/commands.h"

#include "control/files/arc_section.h"
#include "control/files/configuration.h"
#include "control/priority.h"
#include "control/records/arc.h"
#include "control/records/commands.h"
#include "control/show_utp.h"
#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/base/reply.h"
#include "core/dns/dns_cache.h"
#include "core/text/text.h"
#include "platform/records.h"
#include "roaming/roam.h"
#include "userapps/port_service.h"
#include "userapps/show_userapps.h"
#include "userapps/userdef.h"
#include "webfilter/agent_reply.h"
#include "webfilter/web_file.h"
#include "webfilter/web_show.h"
#include "webfilter/web_tables.h"
#include "wificalling/show_wificalling.h"
#include "wificalling/wificalling_file.h"
#include "wificalling/wificalling_tables.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <type_traits>

namespace {

// One command as it came.
struct request {
    uint32_t number;
    int fd;
    const uint8_t *payload; // COMMAND_PAYLOAD_SIZE bytes, zeros behind the received ones
    size_t received;        // of the payload
    uint32_t length;        // of the payload, as the header has it
};

using handler = void (*)(const request &);
using follow_up = void (*)();

struct command_row {
    command_number number;
    handler run;
    follow_up then;
};

constexpr follow_up NOTHING = nullptr;
constexpr follow_up SAVE_APPLICATION_POLICIES = jorn_save_configuration;
constexpr follow_up SAVE_WEB_FILTER = jorn_save_web_configuration;
constexpr follow_up SAVE_WIFICALLING = jorn_save_wificalling_configuration;

// The ways from a request to the function that serves it: what a row hands over of the payload, and
// what it makes of a short one.

// Nothing, but for the connection where there is an answer.
template <auto Run>
void bare(const request &r) {
    if constexpr (std::is_invocable_v<decltype(Run), int>)
        Run(r.fd);
    else
        Run();
}

// A record, completed with zeros: where it stands, or its copy, with the connection where there is
// an answer.
template <typename Record, auto Run>
void completed(const request &r) {
    static_assert(sizeof(Record) <= COMMAND_PAYLOAD_SIZE);
    if constexpr (std::is_invocable_v<decltype(Run), const void *>) {
        Run(r.payload);
    } else {
        Record record;
        memcpy(&record, r.payload, sizeof record);
        if constexpr (std::is_invocable_v<decltype(Run), int, const Record &>)
            Run(r.fd, record);
        else
            Run(record);
    }
}

// A record that is refused when it is short.
template <typename Record, auto Run>
void whole(const request &r) {
    if (r.received >= sizeof(Record))
        completed<Record, Run>(r);
    else
        JORN_ERROR_AS("cmdsock_accept", "command %u: %zu bytes, its record has %zu\n", r.number,
                      r.received, sizeof(Record));
}

// A record whose room refuses what its file can't hold, with a line in the log.
template <typename Record, auto Run>
void stored(const request &r) {
    static_assert(sizeof(Record) <= COMMAND_PAYLOAD_SIZE);
    Record asked;
    memcpy(&asked, r.payload, sizeof asked);
    if (!is_storable(asked))
        return;
    if constexpr (std::is_invocable_v<decltype(Run), const Record &>)
        Run(asked);
    else
        Run(&asked);
}

// A payload of a length that its room works out: `Complete` refuses a short one with a line in the
// log.
template <auto Complete, auto Run>
void counted(const request &r) {
    if (Complete(r.payload, r.received))
        Run(r.payload);
}

void process_arc_policy_log_cfg(int fd, const arc_policy_log_cfg &asked) {
    jorn_process_arc_policy_log_cfg(fd, asked.name, asked.value);
}

void process_debug_cfg(uint32_t value) {
    jorn_settings.debug = static_cast<uint8_t>(value);
}

// The one payload whose length the header has.
void show_intf_url_policy(const request &r) {
    char ifname[32] = {};
    if (r.length >= sizeof ifname || r.length > r.received) {
        JORN_ERROR_AS("cmdsock_accept",
                      "command %u: a name of %u bytes is refused, %zu came and %zu are the most\n",
                      r.number, r.length, r.received, sizeof ifname - 1);
        return;
    }
    memcpy(ifname, r.payload, r.length);
    jorn_process_per_intf_url_policy_list(r.fd, ifname);
}

void jorn_process_ut_case(int32_t test_id) {
    JORN_INFO("Test Id = %d\n", test_id);
    JORN_ERROR("Unknown testid = %d\n", test_id);
}

constexpr command_row COMMANDS[] = {
    {CMD_CHECK_PRIORITY_REQ, completed<uint32_t, jorn_process_cmd_check_priority>, NOTHING},
    {CMD_POLICY_USERDEF_CFG_REQ,
     counted<userdef_payload_complete, jorn_process_cmd_userdef_policy_cfg_req>,
     SAVE_APPLICATION_POLICIES},
    {CMD_USERDEF_SHOW_REQ, bare<jorn_show_userdef_apps>, NOTHING},
    {CMD_POLICY_CLEAN, bare<jorn_process_cmd_policy_clean>, NOTHING},
    {CMD_ROAM_NOTIFY_REQ, completed<roam_notify, jorn_process_cmd_roam_notify>, NOTHING},
    {CMD_DNS_CACHE_SHOW_REQ, bare<jorn_dnscache_show>, NOTHING},
    {CMD_PORT_SERVICE_CFG_REQ, bare<jorn_process_cmd_port_service_cfg_req>, NOTHING},
    {CMD_PORT_APP_SHOW_REQ, bare<jorn_show_port_apps>, NOTHING},
    {CMD_WRITE_CFG_REQ, bare<jorn_process_cmd_write_cfg>, NOTHING},
    {CMD_ARC_UTP_CFG_REQ, completed<utp_entry_wire, jorn_process_arc_config>,
     SAVE_APPLICATION_POLICIES},
    {CMD_WEB_UTP_CFG_REQ, completed<utp_entry_wire, jorn_process_url_config>,
     SAVE_APPLICATION_POLICIES},
    {CMD_UTP_FLUSH_REQ, bare<jorn_process_utp_flush>, NOTHING},
    {CMD_ARC_POLICY_CFG_REQ, stored<arc_policy_wire, __arc_policy_add_end>,
     SAVE_APPLICATION_POLICIES},
    {CMD_ARC_POLICY_FLUSH_REQ, bare<jorn_process_arc_policy_flush>, NOTHING},
    {CMD_UTP_SHOW_REQ, bare<jorn_show_utp>, NOTHING},
    {CMD_ARC_POLICY_LOG_CFG_REQ, completed<arc_policy_log_cfg, process_arc_policy_log_cfg>,
     SAVE_APPLICATION_POLICIES},
    {CMD_WEB_POLICY_CFG_REQ, stored<web_policy_wire, __web_find_intf_and_build_utp_for_pcy>,
     SAVE_WEB_FILTER},
    {CMD_WEB_POLICY_FLUSH_REQ, bare<jorn_process_web_policy_flush>, NOTHING},
    {CMD_WEB_INTF_CFG_REQ, stored<web_intf_wire, jorn_process_web_intf_config>, SAVE_WEB_FILTER},
    {CMD_UF_AGENT_REPLY, whole<uf_agent_reply, jorn_process_uf_agent_async_reply>, NOTHING},
    {CMD_INTF_URL_POLICY_SHOW_REQ, show_intf_url_policy, NOTHING},
    {CMD_UTP_WEB_POLICY_SHOW_REQ, completed<uint32_t, jorn_show_utp_web_policy>, NOTHING},
    {CMD_DEBUG_CFG_REQ, completed<uint32_t, process_debug_cfg>, NOTHING},
    {CMD_WIFICALLING_POLICY_CFG_REQ,
     stored<wificalling_policy_wire, jorn_process_wificalling_policy_cfg>, SAVE_WIFICALLING},
    {CMD_WIFICALLING_INTF_CFG_REQ,
     stored<wificalling_intf_wire, jorn_process_wificalling_intf_config>, SAVE_WIFICALLING},
    {CMD_WIFICALLING_INTF_SHOW_REQ, bare<jorn_show_wificalling_intf>, NOTHING},
    {CMD_WIFICALLING_POLICY_FLUSH_REQ, bare<jorn_process_wificalling_policy_flush>, NOTHING},
    {CMD_UT_CASE_REQ, completed<int32_t, jorn_process_ut_case>, NOTHING},
};
static_assert(std::ranges::adjacent_find(COMMANDS, std::greater_equal(), &command_row::number) ==
                  std::end(COMMANDS),
              "the rows stand in ascending order, each number once");

// The row whose handler was run, or none.
const command_row *handle(int fd, const void *message, size_t received) {
    if (received < COMMAND_NUMBER_END)
        return nullptr;
    cmd_msg_hdr header;
    memcpy(&header, message, sizeof header);
    const request r = {header.cmd, fd, static_cast<const uint8_t *>(message) + sizeof header,
                       received > sizeof header ? received - sizeof header : 0, header.len};
    const command_row *row = std::ranges::find(COMMANDS, header.cmd, &command_row::number);
    if (row == std::end(COMMANDS))
        return nullptr;
    row->run(r);
    return row;
}

void list_write_cfg(line_buffer &text) {
    text.append("\n====JORN write configuration====\n");
}

} // namespace

void run_command(int fd, const void *message, size_t received) {
    const command_row *row = handle(fd, message, received);
    if (row != nullptr && row->then != NOTHING)
        row->then();
}

void run_handler(int fd, const void *message, size_t received) {
    handle(fd, message, received);
}

int jorn_process_cmd_write_cfg(int fd) {
    jorn_save_configuration();
    jorn_save_web_configuration();
    return answer(fd, list_write_cfg);
}
