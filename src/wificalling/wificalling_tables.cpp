#include "wificalling/wificalling_tables.h"

#include "core/base/log.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <span>

namespace {

constexpr char POLICY_CFG[] = "jorn_process_wificalling_policy_cfg";
constexpr char INTF_CONFIG[] = "jorn_process_wificalling_intf_config";
constexpr size_t IFNAME_MAX = 16;

// A count that was sent, cut to what its list holds.
int32_t cut_count(int32_t count, int32_t most, const char *of, log_origin from) {
    const int32_t cut = std::clamp(count, 0, most);
    if (cut != count)
        JORN_SAY(JORN_LOG_ERROR, from, "%s: a count of %d is cut to %d\n",
                 printable_text(of).c_str(), count, cut);
    return cut;
}

// A record as it is kept, or none when memory ran out.
std::unique_ptr<wificalling_policy> make_policy(const wificalling_policy_wire &asked) {
    std::unique_ptr<wificalling_policy> policy(new (std::nothrow) wificalling_policy());
    if (policy == nullptr)
        return policy;
    static_cast<wificalling_policy_wire &>(*policy) = asked;
    terminate(policy->alt_name);
    terminate(policy->pname);
    for (epdg_entry &epdg : policy->epdg)
        terminate(epdg.fqdn);
    policy->num_epdg = static_cast<uint8_t>(
        cut_count(asked.num_epdg, EPDGS_PER_POLICY, policy->pname, JORN_AS(POLICY_CFG)));
    return policy;
}

// Puts the ePDG in place of one that shares its name or its address. Returns the command's result,
// or `unknown` when there is none.
int replace_epdg(wificalling_policy &known, const epdg_entry &wanted, int unknown) {
    for (epdg_entry &epdg : std::span(known.epdg).first(known.num_epdg)) {
        if (strcmp(epdg.fqdn, wanted.fqdn) == 0) {
            if (epdg.ipaddr == wanted.ipaddr) {
                JORN_ERROR_AS(POLICY_CFG, "Policy already exists!\n");
                return -1;
            }
            JORN_INFO_AS(POLICY_CFG, "New ipaddr %s for carrier policy %s\n",
                         ipv4_text(wanted.ipaddr).c_str(), printable_text(known.pname).c_str());
            epdg.ipaddr = wanted.ipaddr;
            return 0;
        }
        if (epdg.ipaddr != wanted.ipaddr)
            continue;
        if (wanted.ipaddr != 0) {
            JORN_INFO_AS(POLICY_CFG, "New fqdn %s for carrier policy %s\n",
                         printable_text(wanted.fqdn).c_str(), printable_text(known.pname).c_str());
            copy_text(epdg.fqdn, wanted.fqdn);
            return 0;
        }
        JORN_DEBUG_AS(POLICY_CFG, "New fqdn %s for carrier policy %s. No IP address.\n",
                      printable_text(wanted.fqdn).c_str(), printable_text(known.pname).c_str());
    }
    return unknown;
}

int add_epdg(wificalling_policy &known, const epdg_entry &wanted) {
    if (known.num_epdg >= EPDGS_PER_POLICY) {
        JORN_ERROR_AS(POLICY_CFG, "Max allowed epdg reached on pname '%s'\n",
                      printable_text(known.pname).c_str());
        return WIFICALLING_ERR_EPDGS_FULL;
    }
    JORN_INFO_AS(POLICY_CFG, "New fqdn %s and ipaddr %s for carrier policy %s\n",
                 printable_text(wanted.fqdn).c_str(), ipv4_text(wanted.ipaddr).c_str(),
                 printable_text(known.pname).c_str());
    known.epdg[known.num_epdg++] = wanted;
    return 0;
}

int update_policy(wificalling_policy &known, const wificalling_policy_wire &asked) {
    constexpr int UNKNOWN = 1;
    if (known.priority != asked.priority) {
        JORN_INFO_AS(POLICY_CFG, "Update on priority. Change from %d to %d\n", known.priority,
                     asked.priority);
        known.priority = asked.priority;
    }
    const int result = replace_epdg(known, asked.epdg[0], UNKNOWN);
    return result != UNKNOWN ? result : add_epdg(known, asked.epdg[0]);
}

std::span<char[65]> used_profiles(wificalling_intf &binding) {
    return std::span(binding.profile).first(static_cast<size_t>(binding.num_profiles));
}

// Links the binding's names to carriers, the last one in the list that fits. Returns whether one
// did; where none does, the log has the interface as it was asked for.
bool resolve(wificalling_intf &binding, const char *ifname) {
    const auto profiles = used_profiles(binding);
    bool resolved = false;
    std::fill(std::begin(binding.policy_ref), std::end(binding.policy_ref), nullptr);
    for (wificalling_policy &policy : jorn_state.wificalling_policy_list) {
        for (size_t i = 0; i < profiles.size(); ++i) {
            if (!equals_ignoring_case(policy.pname, profiles[i]))
                continue;
            JORN_INFO_AS(INTF_CONFIG, "Interface WiFi Calling policy match for %s\n",
                         printable_text(policy.pname).c_str());
            binding.policy_ref[i] = &policy;
            resolved = true;
        }
    }
    if (!resolved)
        JORN_ERROR_AS(INTF_CONFIG, "No such policy '%s' is configured for wlan %s\n",
                      printable_text(binding.profile[0]).c_str(), printable_text(ifname).c_str());
    return resolved;
}

auto has_name(std::string_view ifname) {
    return [ifname](const wificalling_intf &listed) { return ifname == listed.ifname; };
}

int delete_binding(const wificalling_intf_wire &asked) {
    JORN_DEBUG_AS(INTF_CONFIG, "Interface del : %s\n", printable_text(asked.ifname).c_str());
    if (jorn_state.wificalling_intf_list.release_first(has_name(asked.ifname)))
        return 0;
    JORN_ERROR_AS(INTF_CONFIG, "Interface: %s not found\n", printable_text(asked.ifname).c_str());
    return -1;
}

int update_binding(wificalling_intf &known, const wificalling_intf_wire &asked) {
    known.num_profiles = asked.num_profiles;
    memcpy(known.profile, asked.profile, sizeof known.profile);
    memcpy(known.profile_alt, asked.profile_alt, sizeof known.profile_alt);
    if (!resolve(known, asked.ifname))
        return -1;
    JORN_INFO_AS(INTF_CONFIG, "Updating Existing node !\n");
    return 0;
}

int add_binding(const wificalling_intf_wire &asked) {
    record_list<wificalling_intf> &bindings = jorn_state.wificalling_intf_list;
    if (bindings.count >= WIFICALLING_INTFS_MAX) {
        JORN_ERROR_AS(INTF_CONFIG, "the binding of %s is refused: there are %u\n",
                      printable_text(asked.ifname).c_str(), bindings.count);
        return -1;
    }
    std::unique_ptr<wificalling_intf> binding(new (std::nothrow) wificalling_intf());
    if (binding == nullptr) {
        JORN_ERROR_AS(INTF_CONFIG, "Interface Node creation failed!\n");
        return -1;
    }
    static_cast<wificalling_intf_wire &>(*binding) = asked;
    if (!resolve(*binding, asked.ifname))
        return -1;
    if (const wificalling_intf *last = bindings.tail; last == nullptr)
        JORN_DEBUG_AS(INTF_CONFIG, "Wificalling intf config add first\n");
    else
        JORN_DEBUG_AS(INTF_CONFIG, "Added after interface '%s'\n",
                      printable_text(last->ifname).c_str());
    bindings.append(binding.release());
    return 0;
}

} // namespace

int jorn_process_wificalling_policy_cfg(const wificalling_policy_wire &asked) {
    JORN_DEBUG("Carrier name is %s, Priority is %d\n",
               printable_text(field_text(asked.pname)).c_str(), asked.priority);
    std::unique_ptr<wificalling_policy> policy = make_policy(asked);
    if (policy == nullptr)
        return -1;
    record_list<wificalling_policy> &policies = jorn_state.wificalling_policy_list;
    if (wificalling_policy *known = find_carrier(policy->pname); known != nullptr)
        return update_policy(*known, *policy);
    if (policies.count >= WIFICALLING_POLICIES_MAX) {
        JORN_ERROR("the carrier %s is refused: there are %u\n",
                   printable_text(policy->pname).c_str(), policies.count);
        return -1;
    }
    if (const wificalling_policy *last = policies.tail; last == nullptr)
        JORN_ERROR("Added wificalling policy first node\n");
    else
        JORN_DEBUG("Added after policy '%s'\n", printable_text(last->pname).c_str());
    policies.append(policy.release());
    return 0;
}

int jorn_process_wificalling_intf_config(const wificalling_intf_wire &asked) {
    JORN_DEBUG("Processing the intf config\n");
    wificalling_intf_wire wanted = asked;
    copy_text(wanted.ifname, field_text(asked.ifname).substr(0, IFNAME_MAX));
    if (wanted.enable == 0)
        return delete_binding(wanted);
    for (auto &name : wanted.profile)
        terminate(name);
    for (auto &name : wanted.profile_alt)
        terminate(name);
    wanted.num_profiles =
        cut_count(asked.num_profiles, PROFILES_PER_INTF, wanted.ifname, JORN_HERE);
    wificalling_intf *known = __wificalling_intf_find(wanted.ifname);
    JORN_INFO(" Existing i_node = %p\n", static_cast<void *>(known));
    return known != nullptr ? update_binding(*known, wanted) : add_binding(wanted);
}

int jorn_process_wificalling_policy_flush() {
    for (wificalling_intf &binding : jorn_state.wificalling_intf_list)
        std::fill(std::begin(binding.policy_ref), std::end(binding.policy_ref), nullptr);
    jorn_state.wificalling_policy_list.release_all();
    JORN_DEBUG("Wifi-Callling policies flushed\n");
    return 0;
}

wificalling_policy *find_carrier(std::string_view pname) {
    return jorn_state.wificalling_policy_list.find([pname](const wificalling_policy &listed) {
        return pname.substr(0, sizeof listed.pname - 1) == listed.pname;
    });
}

const wificalling_intf *__jorn_get_wificalling_intf(const char *ifname) {
    if (ifname == nullptr)
        return nullptr;
    const wificalling_intf *found = jorn_state.wificalling_intf_list.find(has_name(ifname));
    if (found != nullptr)
        JORN_INFO("Found intf match\n");
    return found;
}

wificalling_intf *__wificalling_intf_find(const char *ifname) {
    return jorn_state.wificalling_intf_list.find([ifname](const wificalling_intf &listed) {
        return equals_ignoring_case(listed.ifname, ifname);
    });
}
