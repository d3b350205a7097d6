#include "control/tables/arc_tables.h"

#include "control/records/arc_index.h"
#include "core/base/log.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "platform/psms.h"

#include <cstring>
#include <new>

namespace {

// The index of the policy's rules, or none when memory ran out.
const arc_rule_index *make_index(const arc_policy_wire &policy) {
    auto *index = new (std::nothrow) arc_rule_index();
    if (index == nullptr)
        return nullptr;
    for (unsigned n = 0; n < ARC_RULES_PER_POLICY; ++n) {
        const arc_rule &rule = policy.rules[n];
        if (rule.app_id == 0) {
            index->domains.set(n, field_text(rule.app_name));
        } else {
            index->id_rules |= uint64_t{1} << n;
            index->ids[n] = uint32_t{rule.app_id} << 16 | rule.cat_id;
        }
    }
    return index;
}

// A record with its index, or none when memory ran out.
arc_policy *make_policy(const void *payload) {
    auto *policy = new (std::nothrow) arc_policy();
    if (policy == nullptr)
        return nullptr;
    memcpy(static_cast<arc_policy_wire *>(policy), payload, sizeof(arc_policy_wire));
    terminate(policy->name);
    terminate(policy->uuid);
    for (arc_rule &rule : policy->rules) {
        terminate(rule.app_name);
        terminate(rule.cat_name);
    }
    policy->index = make_index(*policy);
    return policy;
}

void release_policies(daemon_state &state) {
    for (utp_entry<arc_policy> &entry : state.arc_utp_table)
        entry.policy = nullptr;
    for (arc_policy &policy : state.arc_policy_list)
        delete policy.index;
    state.arc_policy_list.release_all();
    ++state.arc_generation;
}

} // namespace

int jorn_process_arc_config(const void *payload) {
    utp_entry<arc_policy> entry = {};
    memcpy(static_cast<utp_entry_wire *>(&entry), payload, sizeof(utp_entry_wire));
    if (!is_utp_id(entry.id)) {
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
    JORN_DEBUG("UTP added name: %s, id: %d, ARC uuid: %s n", printable_text(entry.name).c_str(),
               static_cast<int>(entry.id), printable_text(entry.uuid).c_str());
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

int __arc_policy_add_end(const void *payload) {
    if (jorn_state.arc_policy_list.count >= ARC_POLICIES_MAX) {
        JORN_ERROR("there are %u ARC policies, one more is refused\n", ARC_POLICIES_MAX);
        return -1;
    }
    arc_policy *policy = make_policy(payload);
    if (policy == nullptr)
        return -1;
    if (const arc_policy *last = jorn_state.arc_policy_list.tail; last == nullptr)
        JORN_DEBUG("policy add first\n");
    else
        JORN_DEBUG("policy added after :%s\n", printable_text(last->name).c_str());
    jorn_state.arc_policy_list.append(policy);
    __arc_policy_build_arc_utp(policy);
    jorn_settings.arc_enabled = 1;
    psms_rflow_reset_app_policy();
    return 0;
}

void __arc_policy_build_arc_utp(arc_policy *policy) {
    if (!is_utp_id(policy->utp_id)) {
        JORN_ERROR("Error arc policy id: %d\n", static_cast<int>(policy->utp_id));
        return;
    }
    utp_entry<arc_policy> &entry = jorn_state.arc_utp_table[policy->utp_id - 1];
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
    const std::string_view wanted(name, strnlen(name, sizeof arc_policy_log_cfg::name));
    arc_policy *policy = jorn_state.arc_policy_list.find(
        [wanted](const arc_policy &listed) { return field_text(listed.name) == wanted; });
    if (policy != nullptr)
        policy->log_enable = static_cast<uint8_t>(value);
}
