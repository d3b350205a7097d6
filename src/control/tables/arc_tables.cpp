#include "control/tables/arc_tables.h"

#include "control/records/arc_index.h"
#include "core/base/log.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "platform/psms.h"

#include <array>
#include <cstring>
#include <new>
#include <strings.h>

namespace {

constexpr size_t LOG_CFG_NAME_SIZE = 68;

bool valid_utp_id(uint32_t id) {
    return id >= UTP_ID_MIN && id <= UTP_ID_MAX;
}

void build_index(arc_rule_index &index, const arc_policy_wire &policy) {
    std::array<std::string_view, ARC_RULES_PER_POLICY> domains;
    for (unsigned n = 0; n < ARC_RULES_PER_POLICY; ++n) {
        const arc_rule &rule = policy.rules[n];
        if (rule.app_id == 0) {
            domains[n] = field_text(rule.app_name);
        } else {
            index.id_rules |= uint64_t{1} << n;
            index.ids[n] = uint32_t{rule.app_id} << 16 | rule.cat_id;
        }
    }
    index.domains.build(domains);
}

// A record with its index, or none when memory ran out.
arc_policy *make_policy(const uint8_t *payload) {
    auto *policy = new (std::nothrow) arc_policy();
    auto *index = new (std::nothrow) arc_rule_index();
    if (policy == nullptr || index == nullptr) {
        delete policy;
        delete index;
        return nullptr;
    }
    memcpy(static_cast<arc_policy_wire *>(policy), payload, sizeof(arc_policy_wire));
    terminate(policy->name);
    terminate(policy->uuid);
    for (arc_rule &rule : policy->rules) {
        terminate(rule.app_name);
        terminate(rule.cat_name);
    }
    build_index(*index, *policy);
    policy->index = index;
    return policy;
}

arc_policy *find_by_uuid(arc_policy *list, const char *uuid) {
    for (arc_policy *policy = list; policy != nullptr; policy = policy->next) {
        if (strcasecmp(policy->uuid, uuid) == 0)
            return policy;
    }
    return nullptr;
}

void release_policies(daemon_state &state) {
    for (utp_entry &entry : state.arc_utp_table)
        entry.policy = nullptr;
    for (arc_policy *policy = state.arc_policy_list; policy != nullptr;) {
        arc_policy *next = policy->next;
        delete policy->index;
        delete policy;
        policy = next;
    }
    state.arc_policy_list = nullptr;
    ++state.arc_generation;
}

} // namespace

const utp_entry *utp_lookup(const utp_entry (&table)[UTP_ID_MAX], uint32_t id) {
    if (id < UTP_ID_MIN || id > UTP_ID_LOOKUP_MAX)
        return nullptr;
    const utp_entry &entry = table[id - 1];
    return entry.id != 0 ? &entry : nullptr;
}

int jorn_process_arc_config(const uint8_t *payload) {
    utp_entry entry = {};
    memcpy(static_cast<utp_entry_wire *>(&entry), payload, sizeof(utp_entry_wire));
    if (!valid_utp_id(entry.id)) {
        JORN_ERROR("Error ARC UTP id: %d\n", static_cast<int>(entry.id));
        return -1;
    }
    terminate(entry.name);
    terminate(entry.uuid);
    if (entry.uuid[0] != '\0')
        entry.policy = find_by_uuid(jorn_state.arc_policy_list, entry.uuid);
    if (entry.policy != nullptr)
        entry.policy->utp_id = entry.id;
    jorn_state.arc_utp_table[entry.id - 1] = entry;
    ++jorn_state.arc_generation;
    JORN_DEBUG("UTP added name: %s, id: %d, ARC uuid: %s n", entry.name, static_cast<int>(entry.id),
               entry.uuid);
    jorn_settings.arc_enabled = 1;
    return 0;
}

int jorn_process_utp_flush() {
    memset(jorn_state.arc_utp_table, 0, sizeof jorn_state.arc_utp_table);
    memset(jorn_state.web_utp_table, 0, sizeof jorn_state.web_utp_table);
    ++jorn_state.arc_generation;
    jorn_settings.arc_enabled = 0;
    JORN_DEBUG("UTP config flushed\n");
    return 0;
}

int __arc_policy_add_end(const uint8_t *payload) {
    arc_policy *policy = make_policy(payload);
    if (policy == nullptr)
        return -1;
    arc_policy **tail = &jorn_state.arc_policy_list;
    const arc_policy *previous = nullptr;
    while (*tail != nullptr) {
        previous = *tail;
        tail = &(*tail)->next;
    }
    *tail = policy;
    if (previous == nullptr)
        JORN_DEBUG("policy add first\n");
    else
        JORN_DEBUG("policy added after :%s\n", previous->name);
    __arc_policy_build_arc_utp(policy);
    jorn_settings.arc_enabled = 1;
    psms_rflow_reset_app_policy();
    return 0;
}

void __arc_policy_build_arc_utp(arc_policy *policy) {
    if (!valid_utp_id(policy->utp_id)) {
        JORN_ERROR("Error arc policy id: %d\n", static_cast<int>(policy->utp_id));
        return;
    }
    utp_entry &entry = jorn_state.arc_utp_table[policy->utp_id - 1];
    entry = {};
    entry.id = policy->utp_id;
    entry.policy = policy;
    ++jorn_state.arc_generation;
}

void jorn_process_arc_policy_flush() {
    jorn_settings.arc_enabled = 0;
    release_policies(jorn_state);
    JORN_DEBUG("ARC policies flushed\n");
    psms_rflow_reset_app_policy();
}

void jorn_process_cmd_policy_clean() {
    JORN_DEBUG("process the CMD_POLICY_CLEAN \n");
    release_policies(jorn_state);
}

void jorn_process_arc_policy_log_cfg(int, const char *name, uint32_t value) {
    const std::string_view wanted(name, strnlen(name, LOG_CFG_NAME_SIZE));
    for (arc_policy *policy = jorn_state.arc_policy_list; policy != nullptr;
         policy = policy->next) {
        if (field_text(policy->name) == wanted) {
            policy->log_enable = static_cast<uint8_t>(value);
            return;
        }
    }
}
