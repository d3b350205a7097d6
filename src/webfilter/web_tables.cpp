#include "webfilter/web_tables.h"

#include "control/tables/arc_tables.h"
#include "core/base/log.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "webfilter/policy_index.h"
#include "webfilter/safe_search.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace {

using web_utp_entry = utp_entry<web_policy>;

// Cuts the counts of a record that promises more than its lists hold.
void cut_counts(web_policy_wire &policy, log_origin from) {
    const auto cut = [](uint8_t &count, size_t most) {
        const bool is_more = count > most;
        count = static_cast<uint8_t>(std::min<size_t>(count, most));
        return is_more;
    };
    const bool categories = cut(policy.num_categories, WEB_CATEGORIES_MAX);
    const bool white = cut(policy.num_whitelist, WEB_PATTERNS_MAX);
    const bool black = cut(policy.num_blacklist, WEB_PATTERNS_MAX);
    if (categories || white || black) {
        JORN_SAY(
            JORN_LOG_ERROR, from,
            "web policy %s: counts beyond %zu categories, %zu white and %zu black patterns are "
            "cut\n",
            printable_text(policy.name).c_str(), WEB_CATEGORIES_MAX, WEB_PATTERNS_MAX,
            WEB_PATTERNS_MAX);
    }
}

// A record as it is kept, or none when memory ran out.
std::unique_ptr<web_policy> make_policy(const void *payload, log_origin from) {
    std::unique_ptr<web_policy> policy(new (std::nothrow) web_policy());
    if (policy == nullptr)
        return policy;
    memcpy(static_cast<web_policy_wire *>(policy.get()), payload, sizeof(web_policy_wire));
    terminate(policy->uuid);
    terminate(policy->name);
    std::for_each_n(policy->whitelist, WEB_PATTERNS_MAX, [](auto &text) { terminate(text); });
    std::for_each_n(policy->blacklist, WEB_PATTERNS_MAX, [](auto &text) { terminate(text); });
    cut_counts(*policy, from);
    build_policy_index(policy->index, *policy);
    return policy;
}

// Hands a UTP over to a new policy, with the safe search of the interfaces that used its old one.
void build_web_utp(web_policy &policy) {
    for (const web_intf &bound : jorn_state.web_intf_list) {
        if (bound.policy != nullptr && bound.policy->utp_id == policy.utp_id)
            jorn_process_safe_search(0, bound.ifname, policy);
    }
    web_utp_entry &entry = jorn_state.web_utp_table[policy.utp_id - 1];
    entry = {};
    entry.id = policy.utp_id;
    entry.policy = &policy;
    jorn_process_safe_search(policy.utp_id, nullptr, policy);
}

void __web_policy_add_end(web_policy *policy) {
    if (const web_policy *last = jorn_state.web_policy_list.tail; last == nullptr)
        JORN_DEBUG("Web policy add first\n");
    else
        JORN_DEBUG("Web policy added after :%s\n", printable_text(last->name).c_str());
    jorn_state.web_policy_list.append(policy);
}

// The first policy of a binding's uuid, or none.
web_policy *policy_of(const web_intf_wire &binding) {
    web_policy *policy = find_by_uuid(jorn_state.web_policy_list, binding.policy_uuid);
    if (policy != nullptr)
        JORN_DEBUG_AS("__jorn_get_web_policy_cfg", "Interface Web policy match for %s\n",
                      printable_text(policy->name).c_str());
    return policy;
}

auto has_name(std::string_view ifname) {
    return [ifname](const web_intf &listed) { return ifname == listed.ifname; };
}

int __web_intf_del(const web_intf_wire &binding) {
    JORN_DEBUG("Interface del : %d %s\n", static_cast<int>(binding.intf_value),
               printable_text(binding.ifname).c_str());
    jorn_state.web_intf_list.release_first(has_name(binding.ifname));
    return 0;
}

void __web_intf_add_end(web_intf *binding) {
    if (const web_intf *last = jorn_state.web_intf_list.tail; last == nullptr)
        JORN_DEBUG("Web Interface add first\n");
    else
        JORN_DEBUG("Web Interface added after :%s\n", printable_text(last->ifname).c_str());
    jorn_state.web_intf_list.append(binding);
}

// Adds a binding in place of the one of its name.
void replace_binding(const web_intf_wire &wanted) {
    constexpr char FUNCTION[] = "jorn_process_web_intf_config";
    const record_list<web_intf> &bindings = jorn_state.web_intf_list;
    if (bindings.count >= WEB_INTFS_MAX && bindings.find(has_name(wanted.ifname)) == nullptr) {
        JORN_ERROR_AS(FUNCTION, "the binding of %s is refused: there are %u\n",
                      printable_text(wanted.ifname).c_str(), bindings.count);
        return;
    }
    auto *binding = new (std::nothrow) web_intf();
    if (binding == nullptr)
        return;
    static_cast<web_intf_wire &>(*binding) = wanted;
    __web_intf_del(wanted);
    binding->policy = policy_of(wanted);
    if (binding->policy != nullptr)
        jorn_process_safe_search(0, binding->ifname, *binding->policy);
    else
        JORN_ERROR_AS(FUNCTION, "No policy is configured for wlan %s and policy uuid %s\n",
                      printable_text(binding->ifname).c_str(),
                      printable_text(binding->policy_uuid).c_str());
    __web_intf_add_end(binding);
}

} // namespace

int jorn_process_url_config(const void *payload) {
    web_utp_entry entry = {};
    memcpy(static_cast<utp_entry_wire *>(&entry), payload, sizeof(utp_entry_wire));
    if (!is_utp_id(entry.id)) {
        JORN_ERROR("Error URL UTP id: %d\n", static_cast<int>(entry.id));
        return -1;
    }
    terminate(entry.name);
    terminate(entry.uuid);
    if (entry.uuid[0] != '\0')
        entry.policy = find_by_uuid(jorn_state.web_policy_list, entry.uuid);
    jorn_state.web_utp_table[entry.id - 1] = entry;
    if (entry.policy != nullptr) {
        jorn_process_safe_search(entry.id, nullptr, *entry.policy);
        entry.policy->utp_id = entry.id;
    }
    JORN_DEBUG("UTP added name: %s, id: %d, Web uuid:%s\n", printable_text(entry.name).c_str(),
               static_cast<int>(entry.id), printable_text(entry.uuid).c_str());
    jorn_settings.arc_enabled = 1;
    return 0;
}

int __web_find_intf_and_build_utp_for_pcy(const void *payload) {
    if (jorn_state.web_policy_list.count >= WEB_POLICIES_MAX) {
        web_policy_wire refused;
        memcpy(&refused, payload, sizeof refused);
        JORN_ERROR("web policy %s is refused: there are %u\n",
                   printable_text(field_text(refused.name)).c_str(),
                   jorn_state.web_policy_list.count);
        return -1;
    }
    std::unique_ptr<web_policy> policy = make_policy(payload, JORN_HERE);
    if (policy == nullptr)
        return -1;
    if (is_utp_id(policy->utp_id))
        build_web_utp(*policy);
    else
        JORN_ERROR("Error Web filter Id: %d\n", static_cast<int>(policy->utp_id));
    __web_policy_add_end(policy.release());
    return 0;
}

int jorn_process_web_policy_flush() {
    for (web_utp_entry &entry : jorn_state.web_utp_table)
        entry.policy = nullptr;
    for (web_intf &binding : jorn_state.web_intf_list)
        binding.policy = nullptr;
    jorn_state.web_policy_list.release_all();
    JORN_DEBUG("WEB/URL policies flushed\n");
    return 0;
}

int jorn_process_web_intf_config(const void *payload) {
    web_intf_wire binding;
    memcpy(&binding, payload, sizeof binding);
    terminate(binding.ifname);
    terminate(binding.policy_uuid);
    JORN_DEBUG("processing the intf config\n");
    switch (binding.op) {
    case WEB_INTF_DELETE:
        return __web_intf_del(binding);
    case WEB_INTF_ADD:
        replace_binding(binding);
        return 0;
    case WEB_INTF_DISABLE:
        if (binding.enable == 0)
            __web_intf_del(binding);
        return -1;
    default:
        return -1;
    }
}
