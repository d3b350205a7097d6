#include "userapps/userdef.h"

#include "core/base/log.h"
#include "core/files/storable.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "platform/psms.h"
#include "userapps/lines/userdef_line.h"
#include "userapps/settle.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

bool is_address_family(uint16_t family) {
    return family == AF_INET || family == AF_INET6;
}

bool outside(uint32_t ip_be, uint32_t network_be, uint32_t netmask_be) {
    return ((ip_be ^ network_be) & netmask_be) != 0;
}

// The definitions that the packet fits, a bit each, whatever the policies allow.
uint32_t fitting_definitions(const settled_apps &apps, const pkt_ctx &pkt) {
    uint32_t fitting = 0;
    for (unsigned i = 0; i < apps.userdef_count; ++i) {
        const userdef_criteria &wanted = apps.criteria[i];
        if (outside(pkt.dst_ip, wanted.network_be, wanted.netmask_be) &&
            outside(pkt.src_ip, wanted.network_be, wanted.netmask_be))
            continue;
        if (((pkt.dst_port ^ wanted.port) & wanted.port_mask) != 0 &&
            ((pkt.src_port ^ wanted.port) & wanted.port_mask) != 0)
            continue;
        if (((pkt.ip_proto ^ wanted.protocol) & wanted.protocol_mask) == 0)
            fitting |= uint32_t{1} << i;
    }
    return fitting;
}

const userdef_app *walk_for(const pkt_ctx &pkt, uint32_t utp_id) {
    const arc_policy *policy = arc_policy_of(utp_id);
    const userdef_table &table = jorn_state.userdef_apps;
    for (int32_t i = 0; i < table.count; ++i) {
        const userdef_app *record = &table.records[i];
        if (policy != nullptr && __is_userdef_attached_to_arc(policy, record) == 0)
            continue;
        if (jorn_is_pkt_match_userdef_app(&pkt, record) != 0)
            return record;
    }
    return nullptr;
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
    if (jorn_log_enabled(JORN_LOG_DEBUG))
        walk_userdef_apps(*pkt);
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

const userdef_app *walk_userdef_apps(const pkt_ctx &pkt) {
    const userdef_app *record = walk_for(pkt, pkt.src_utp_id);
    return record != nullptr ? record : walk_for(pkt, pkt.dst_utp_id);
}

int jorn_is_pkt_match_userdef_app(const pkt_ctx *pkt, const userdef_app *record) {
    if ((record->bitmap & USERDEF_DST_IP) != 0) {
        uint32_t network_be;
        memcpy(&network_be, record->dst_ip, sizeof network_be);
        if (outside(pkt->dst_ip, network_be, record->netmask) &&
            outside(pkt->src_ip, network_be, record->netmask)) {
            JORN_DEBUG("User-Defined App: IP NO MATCH\n");
            return 0;
        }
    }
    if ((record->bitmap & USERDEF_DST_PORT) != 0 && pkt->dst_port != record->dst_port &&
        pkt->src_port != record->dst_port) {
        JORN_DEBUG("User-Defined App: PORT NO MATCH\n");
        return 0;
    }
    if ((record->bitmap & USERDEF_PROTOCOL) != 0 && pkt->ip_proto != record->protocol) {
        JORN_DEBUG("User-Defined App: PROTOCOL NO MATCH\n");
        return 0;
    }
    return 1;
}

int __is_userdef_attached_to_arc(const arc_policy *policy, const userdef_app *record) {
    for (const arc_rule &rule : policy->rules) {
        if (field_text(rule.cat_name) == CATEGORY_NAME_USER_DEFINED &&
            field_text(rule.app_name) == field_text(record->app_name)) {
            JORN_DEBUG("userdef policy %s is attached to arc node %d!\n",
                       printable_text(field_text(record->app_name)).c_str(),
                       static_cast<int>(policy->utp_id));
            return 1;
        }
    }
    return 0;
}
