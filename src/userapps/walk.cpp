#include "userapps/walk.h"

#include "core/base/log.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "userapps/settle.h"

#include <cstring>
#include <netinet/in.h>

namespace {

const userdef_app *walk_definitions(const pkt_ctx &pkt, uint32_t utp_id) {
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

const port_app *walk_list(const pkt_ctx &pkt, uint32_t utp_id) {
    const arc_policy *policy = arc_policy_of(utp_id);
    for (const port_app &entry : jorn_state.port_apps) {
        if (policy != nullptr && __is_userdef_port_attached_to_arc(policy, &entry) == 0)
            continue;
        if (entry.begin_port != pkt.dst_port && entry.begin_port != pkt.src_port)
            continue;
        if ((entry.tcp_flag != 0 && pkt.ip_proto == IPPROTO_TCP) ||
            (entry.udp_flag != 0 && pkt.ip_proto == IPPROTO_UDP))
            return &entry;
    }
    return nullptr;
}

} // namespace

void trace_userdef_search(const pkt_ctx &pkt) {
    if (jorn_log_enabled(JORN_LOG_DEBUG))
        walk_userdef_apps(pkt);
}

void trace_port_search(const pkt_ctx &pkt) {
    if (jorn_log_enabled(JORN_LOG_DEBUG))
        walk_port_apps(pkt);
}

const userdef_app *walk_userdef_apps(const pkt_ctx &pkt) {
    const userdef_app *record = walk_definitions(pkt, pkt.src_utp_id);
    return record != nullptr ? record : walk_definitions(pkt, pkt.dst_utp_id);
}

const port_app *walk_port_apps(const pkt_ctx &pkt) {
    const port_app *entry = walk_list(pkt, pkt.src_utp_id);
    return entry != nullptr ? entry : walk_list(pkt, pkt.dst_utp_id);
}

int jorn_is_pkt_match_userdef_app(const pkt_ctx *pkt, const userdef_app *record) {
    if ((record->bitmap & USERDEF_DST_IP) != 0) {
        uint32_t network_be;
        memcpy(&network_be, record->dst_ip, sizeof network_be);
        if (is_outside(pkt->dst_ip, network_be, record->netmask) &&
            is_outside(pkt->src_ip, network_be, record->netmask)) {
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

int __is_userdef_port_attached_to_arc(const arc_policy *policy, const port_app *entry) {
    for (const arc_rule &rule : policy->rules) {
        if (field_text(rule.cat_name) == CATEGORY_NAME_USER_DEFINED &&
            field_text(rule.app_name) == field_text(entry->app_name)) {
            JORN_DEBUG("userdef attached %s attached to arc policy %s\n",
                       printable_text(field_text(entry->app_name)).c_str(),
                       printable_text(policy->name).c_str());
            return 1;
        }
    }
    return 0;
}
