#include "userapps/userdef.h"

#include "core/base/log.h"
#include "core/files/storable.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "platform/psms.h"
#include "userapps/lines/userdef_line.h"
#include "userapps/settle.h"
#include "userapps/walk.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

bool is_address_family(uint16_t family) {
    return family == AF_INET || family == AF_INET6;
}

// The definitions that the packet fits, a bit each, whatever the policies allow.
uint32_t fitting_definitions(const settled_apps &apps, const pkt_ctx &pkt) {
    uint32_t fitting = 0;
    for (unsigned i = 0; i < apps.userdef_count; ++i) {
        const userdef_criteria &wanted = apps.criteria[i];
        if (is_outside(pkt.dst_ip, wanted.network_be, wanted.netmask_be) &&
            is_outside(pkt.src_ip, wanted.network_be, wanted.netmask_be))
            continue;
        if (((pkt.dst_port ^ wanted.port) & wanted.port_mask) != 0 &&
            ((pkt.src_port ^ wanted.port) & wanted.port_mask) != 0)
            continue;
        if (((pkt.ip_proto ^ wanted.protocol) & wanted.protocol_mask) == 0)
            fitting |= uint32_t{1} << i;
    }
    return fitting;
}

// Whether the file can keep the names of the definitions. What can't be kept is reported.
bool are_storable(const userdef_table &table) {
    for (int32_t i = 0; i < table.count; ++i) {
        char what[64];
        snprintf(what, sizeof what, "user-defined application %d of %d", i + 1, table.count);
        if (!is_storable(table.records[i], USERDEF_LINE, {}, what,
                         JORN_AS("jorn_update_user_def_policy_cfg")))
            return false;
    }
    return true;
}

} // namespace

int jorn_process_cmd_userdef_policy_cfg_req(const void *payload) {
    JORN_DEBUG("process the CMD_POLICY_USERDEF_CFG_REQ \n");
    int32_t count;
    memcpy(&count, payload, sizeof count);
    return jorn_update_user_def_policy_cfg(static_cast<const uint8_t *>(payload) + sizeof count,
                                           count);
}

bool userdef_payload_complete(const void *payload, size_t received) {
    int32_t count;
    memcpy(&count, payload, sizeof count);
    if (count <= 0 || count > USERDEF_APPS_MAX ||
        received >= sizeof count + static_cast<size_t>(count) * sizeof(userdef_app))
        return true;
    JORN_ERROR_AS("jorn_process_cmd_userdef_policy_cfg_req",
                  "%d user-defined applications don't fit into %zu bytes\n", count, received);
    return false;
}

int jorn_update_user_def_policy_cfg(const void *records, int32_t count) {
    if (count < 0 || count > USERDEF_APPS_MAX) {
        JORN_ERROR("too many user define policies : %d\n", count);
        return -1;
    }
    userdef_table table = {};
    table.count = count;
    if (count > 0)
        memcpy(table.records, records, static_cast<size_t>(count) * sizeof(userdef_app));
    if (!are_storable(table))
        return -1;
    psms_rflow_reset_app_policy();
    JORN_DEBUG("in update userdef policy cfg, the policy num is %d\n", count);
    for (int32_t i = 0; i < count; ++i) {
        userdef_app &record = table.records[i];
        terminate(record.app_name);
        userdef_build_bitmap(&record);
    }
    jorn_state.userdef_apps = table;
    settle_userapps();
    return 0;
}

void userdef_build_bitmap(userdef_app *record) {
    uint8_t bitmap = 0;
    if (is_address_family(record->src_family))
        bitmap |= USERDEF_SRC_IP;
    if (record->src_port != 0)
        bitmap |= USERDEF_SRC_PORT;
    if (is_address_family(record->dst_family))
        bitmap |= USERDEF_DST_IP;
    if (record->dst_port != 0)
        bitmap |= USERDEF_DST_PORT;
    if (record->protocol == IPPROTO_TCP || record->protocol == IPPROTO_UDP)
        bitmap |= USERDEF_PROTOCOL;
    record->bitmap = bitmap;
}

int jorn_detect_pkt_userdef_app(pkt_ctx *pkt) {
    trace_userdef_search(*pkt);
    const userdef_app *record = find_userdef_app(*pkt);
    if (record == nullptr)
        return 0;
    JORN_INFO("MATCH for User-Defined App\n");
    pkt->detect_flags |= DETECT_CLASSIFIED;
    copy_text(pkt->app_name, field_text(record->app_name));
    pkt->app_source = APP_SOURCE_USERDEF;
    pkt->app_id = record->app_id;
    pkt->app_cat_id = record->cat_id;
    pkt->match_info = 1;
    return 1;
}

const userdef_app *find_userdef_app(const pkt_ctx &pkt) {
    const uint32_t fitting = fitting_definitions(settled(), pkt);
    if (fitting == 0)
        return nullptr;
    for (const uint32_t utp_id : {pkt.src_utp_id, pkt.dst_utp_id}) {
        const uint32_t allowed = fitting & allowed_for(utp_id).userdef_apps();
        if (allowed != 0)
            return &jorn_state.userdef_apps.records[std::countr_zero(allowed)];
    }
    return nullptr;
}
