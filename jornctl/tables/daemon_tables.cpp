#include "jornctl/tables/daemon_tables.h"

#include "control/records/commands.h"
#include "core/text/text.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace jornctl {
namespace {

// A short payload counts as filled up with zeros.
template <typename Record>
Record record_in(std::string_view bytes) {
    Record read = {};
    memcpy(&read, bytes.data(), std::min(bytes.size(), sizeof read));
    return read;
}

template <typename Policy>
link find_uuid(const std::vector<Policy> &policies, const char *uuid) {
    for (size_t i = 0; i < policies.size(); ++i) {
        if (equals_ignoring_case(policies[i].uuid, uuid))
            return i;
    }
    return std::nullopt;
}

// An entry without a uuid has no policy, while a binding without one finds a policy without one.
template <typename Policy>
link policy_of(const utp_entry_wire &entry, const std::vector<Policy> &policies) {
    return entry.uuid[0] == '\0' ? std::nullopt : find_uuid(policies, entry.uuid);
}

bool is_utp(uint32_t id) {
    return id >= UTP_ID_MIN && id <= UTP_ID_MAX;
}

void unlink_all(utp_table &table) {
    for (linked_utp &each : table)
        each.policy.reset();
}

// The entry that a policy makes of its UTP.
linked_utp made_by_policy(uint32_t id, size_t policy) {
    linked_utp made = {};
    made.entry.id = id;
    made.policy = policy;
    return made;
}

void map_search(daemon_tables &in, const search_side &side, const web_policy_wire &policy) {
    const search_addresses wanted = {
        policy.google_safe_search != 0 ? std::optional(policy.google_vip) : std::nullopt,
        policy.bing_safe_search != 0 ? std::optional(policy.bing_vip) : std::nullopt,
        policy.youtube_safe_search != 0 ? std::optional(policy.youtube_vip) : std::nullopt};
    if (std::ranges::none_of(wanted, [](const auto &each) { return each.has_value(); }))
        in.safe_search.erase(side);
    else
        in.safe_search[side] = wanted;
}

// ARC.

void take_policy(daemon_tables &in, const std::string &payload) {
    in.policy_file_behind = false;
    if (in.policies.size() >= ARC_POLICIES_MAX)
        return;
    in.policies.push_back(record_in<arc_policy_wire>(payload));
    const uint32_t id = in.policies.back().utp_id;
    if (is_utp(id))
        in.utps[id - 1] = made_by_policy(id, in.policies.size() - 1);
    in.arc_enabled = true;
}

void take_utp(daemon_tables &in, const std::string &payload) {
    in.policy_file_behind = false;
    const auto entry = record_in<utp_entry_wire>(payload);
    if (!is_utp(entry.id))
        return;
    const link policy = policy_of(entry, in.policies);
    if (policy)
        in.policies[*policy].utp_id = entry.id;
    in.utps[entry.id - 1] = {entry, policy};
    in.arc_enabled = true;
}

void clean_policies(daemon_tables &in, const std::string &) {
    in.policy_file_behind = in.policy_file_behind || !in.policies.empty();
    in.policies.clear();
    unlink_all(in.utps);
}

void flush_policies(daemon_tables &in, const std::string &payload) {
    clean_policies(in, payload);
    in.arc_enabled = false;
}

void flush_utps(daemon_tables &in, const std::string &) {
    in.utps = {};
    in.web_utps = {};
    in.arc_enabled = false;
}

void take_log_switch(daemon_tables &in, const std::string &payload) {
    in.policy_file_behind = false;
    const auto asked = record_in<arc_policy_log_cfg>(payload);
    for (arc_policy_wire &policy : in.policies) {
        if (field_text(policy.name) == field_text(asked.name)) {
            policy.log_enable = static_cast<uint8_t>(asked.value);
            return;
        }
    }
}

void take_applications(daemon_tables &in, const std::string &payload) {
    in.policy_file_behind = false;
    const auto count = record_in<int32_t>(payload);
    if (count < 0 || count > USERDEF_APPS_MAX ||
        payload.size() < sizeof count + static_cast<size_t>(count) * sizeof(userdef_app))
        return;
    in.applications.clear();
    for (size_t i = 0; std::cmp_less(i, count); ++i)
        in.applications.push_back(record_in<userdef_app>(
            std::string_view(payload).substr(sizeof count + i * sizeof(userdef_app))));
}

// The web.

void take_web_policy(daemon_tables &in, const std::string &payload) {
    in.web_file_behind = false;
    if (in.web_policies.size() >= WEB_POLICIES_MAX)
        return;
    const auto policy = record_in<web_policy_wire>(payload);
    if (is_utp(policy.utp_id)) {
        for (const linked_web_interface &each : in.web_interfaces) {
            if (each.policy && in.web_policies[*each.policy].utp_id == policy.utp_id)
                map_search(in, {0, each.binding.ifname}, policy);
        }
        in.web_utps[policy.utp_id - 1] = made_by_policy(policy.utp_id, in.web_policies.size());
        map_search(in, {policy.utp_id, ""}, policy);
    }
    in.web_policies.push_back(policy);
}

void take_web_utp(daemon_tables &in, const std::string &payload) {
    in.policy_file_behind = false;
    const auto entry = record_in<utp_entry_wire>(payload);
    if (!is_utp(entry.id))
        return;
    const link policy = policy_of(entry, in.web_policies);
    in.web_utps[entry.id - 1] = {entry, policy};
    if (policy) {
        map_search(in, {entry.id, ""}, in.web_policies[*policy]);
        in.web_policies[*policy].utp_id = entry.id;
    }
    in.arc_enabled = true;
}

void flush_web_policies(daemon_tables &in, const std::string &) {
    in.web_file_behind = in.web_file_behind || !in.web_policies.empty();
    in.web_policies.clear();
    unlink_all(in.web_utps);
    for (linked_web_interface &each : in.web_interfaces)
        each.policy.reset();
}

// A binding that replaces one goes to the end.
void take_web_interface(daemon_tables &in, const std::string &payload) {
    in.web_file_behind = false;
    const auto binding = record_in<web_intf_wire>(payload);
    const bool goes =
        binding.op == WEB_INTF_DELETE || (binding.op == WEB_INTF_DISABLE && binding.enable == 0);
    if (!goes && binding.op != WEB_INTF_ADD)
        return;
    std::erase_if(in.web_interfaces, [&](const linked_web_interface &each) {
        return strcmp(each.binding.ifname, binding.ifname) == 0;
    });
    if (goes || in.web_interfaces.size() >= WEB_INTFS_MAX)
        return;
    const link policy = find_uuid(in.web_policies, binding.policy_uuid);
    in.web_interfaces.push_back({binding, policy});
    if (policy)
        map_search(in, {0, binding.ifname}, in.web_policies[*policy]);
}

// Wi-Fi calling.

// Where the ePDG of an update goes: in place of one that shares its name or its address, else
// behind the others.
void take_epdg(wificalling_policy_wire &known, const epdg_entry &wanted) {
    for (size_t i = 0; i < known.num_epdg; ++i) {
        epdg_entry &epdg = known.epdg[i];
        if (strcmp(epdg.fqdn, wanted.fqdn) == 0) {
            epdg.ipaddr = wanted.ipaddr;
            return;
        }
        if (epdg.ipaddr == wanted.ipaddr && wanted.ipaddr != 0) {
            copy_text(epdg.fqdn, wanted.fqdn);
            return;
        }
    }
    if (known.num_epdg < EPDGS_PER_POLICY)
        known.epdg[known.num_epdg++] = wanted;
}

void take_carrier(daemon_tables &in, const std::string &payload) {
    in.wificalling_file_behind = false;
    const auto carrier = record_in<wificalling_policy_wire>(payload);
    for (wificalling_policy_wire &known : in.carriers) {
        if (strcmp(known.pname, carrier.pname) == 0) {
            known.priority = carrier.priority;
            take_epdg(known, carrier.epdg[0]);
            return;
        }
    }
    if (in.carriers.size() < WIFICALLING_POLICIES_MAX)
        in.carriers.push_back(carrier);
}

// Each name's is the last carrier that has it. Returns whether there was one.
bool resolve(linked_wificalling_interface &of, const daemon_tables &in) {
    of.carriers = {};
    bool any = false;
    for (size_t carrier = 0; carrier < in.carriers.size(); ++carrier) {
        for (size_t i = 0; std::cmp_less(i, of.binding.num_profiles); ++i) {
            if (equals_ignoring_case(in.carriers[carrier].pname, of.binding.profile[i])) {
                of.carriers[i] = carrier;
                any = true;
            }
        }
    }
    return any;
}

void take_wificalling_interface(daemon_tables &in, const std::string &payload) {
    in.wificalling_file_behind = false;
    const auto binding = record_in<wificalling_intf_wire>(payload);
    auto &all = in.wificalling_interfaces;
    if (binding.enable == 0) {
        std::erase_if(all, [&](const linked_wificalling_interface &each) {
            return strcmp(each.binding.ifname, binding.ifname) == 0;
        });
        return;
    }
    for (linked_wificalling_interface &known : all) {
        if (!equals_ignoring_case(known.binding.ifname, binding.ifname))
            continue;
        known.binding.num_profiles = binding.num_profiles;
        memcpy(known.binding.profile, binding.profile, sizeof binding.profile);
        memcpy(known.binding.profile_alt, binding.profile_alt, sizeof binding.profile_alt);
        resolve(known, in);
        return;
    }
    linked_wificalling_interface fresh = {binding, {}};
    if (all.size() < WIFICALLING_INTFS_MAX && resolve(fresh, in))
        all.push_back(fresh);
}

void flush_carriers(daemon_tables &in, const std::string &) {
    in.wificalling_file_behind = in.wificalling_file_behind || !in.carriers.empty();
    in.carriers.clear();
    for (linked_wificalling_interface &each : in.wificalling_interfaces)
        each.carriers = {};
}

void write_files(daemon_tables &in, const std::string &) {
    in.policy_file_behind = in.web_file_behind = false;
}

constexpr struct {
    command_number number;
    void (*take)(daemon_tables &in, const std::string &payload);
} COMMANDS[] = {
    {CMD_POLICY_USERDEF_CFG_REQ, take_applications},
    {CMD_POLICY_CLEAN, clean_policies},
    {CMD_WRITE_CFG_REQ, write_files},
    {CMD_ARC_UTP_CFG_REQ, take_utp},
    {CMD_WEB_UTP_CFG_REQ, take_web_utp},
    {CMD_UTP_FLUSH_REQ, flush_utps},
    {CMD_ARC_POLICY_CFG_REQ, take_policy},
    {CMD_ARC_POLICY_FLUSH_REQ, flush_policies},
    {CMD_ARC_POLICY_LOG_CFG_REQ, take_log_switch},
    {CMD_WEB_POLICY_CFG_REQ, take_web_policy},
    {CMD_WEB_POLICY_FLUSH_REQ, flush_web_policies},
    {CMD_WEB_INTF_CFG_REQ, take_web_interface},
    {CMD_WIFICALLING_POLICY_CFG_REQ, take_carrier},
    {CMD_WIFICALLING_INTF_CFG_REQ, take_wificalling_interface},
    {CMD_WIFICALLING_POLICY_FLUSH_REQ, flush_carriers},
};

template <typename Record>
bool same_records(const std::vector<Record> &a, const std::vector<Record> &b) {
    return std::ranges::equal(a, b, same_bytes<Record>);
}

bool same_utps(const utp_table &a, const utp_table &b) {
    return std::ranges::equal(a, b, same_entry);
}

template <typename Binding, typename Find>
bool same_bindings(const std::vector<Binding> &a, const std::vector<Binding> &b, Find find_in_b) {
    return a.size() == b.size() && std::ranges::all_of(a, [&](const Binding &each) {
               const Binding *const other = find_in_b(each.binding.ifname);
               return other != nullptr && same_binding(each, *other);
           });
}

template <typename Binding>
const Binding *find_interface(const std::vector<Binding> &in, const char *ifname) {
    const auto found = std::ranges::find_if(
        in, [&](const Binding &each) { return strcmp(each.binding.ifname, ifname) == 0; });
    return found == in.end() ? nullptr : &*found;
}

} // namespace

void daemon_tables::take(const command &sent) {
    const auto *const row = std::ranges::find(
        COMMANDS, sent.number, [](const auto &each) { return uint32_t{each.number}; });
    if (row != std::end(COMMANDS))
        row->take(*this, sent.payload);
}

void daemon_tables::take(const std::vector<command> &sent) {
    for (const command &each : sent)
        take(each);
}

// Its uuid is looked at when it comes, and nobody shows it.
bool same_entry(const linked_utp &a, const linked_utp &b) {
    return a.entry.id == b.entry.id && strcmp(a.entry.name, b.entry.name) == 0 &&
           a.policy == b.policy;
}

bool same_binding(const linked_web_interface &a, const linked_web_interface &b) {
    return same_bytes(a.binding, b.binding) && a.policy == b.policy;
}

bool same_binding(const linked_wificalling_interface &a, const linked_wificalling_interface &b) {
    return same_bytes(a.binding, b.binding) && a.carriers == b.carriers;
}

const linked_web_interface *find_web_interface(const daemon_tables &in, const char *ifname) {
    return find_interface(in.web_interfaces, ifname);
}

const linked_wificalling_interface *find_wificalling_interface(const daemon_tables &in,
                                                               const char *ifname) {
    return find_interface(in.wificalling_interfaces, ifname);
}

bool same_arc(const daemon_tables &a, const daemon_tables &b) {
    return same_records(a.policies, b.policies) && same_utps(a.utps, b.utps) &&
           a.arc_enabled == b.arc_enabled && a.policy_file_behind == b.policy_file_behind;
}

bool same_applications(const daemon_tables &a, const daemon_tables &b) {
    return same_records(a.applications, b.applications);
}

bool same_web(const daemon_tables &a, const daemon_tables &b) {
    const auto in_b = [&](const char *ifname) { return find_web_interface(b, ifname); };
    return same_records(a.web_policies, b.web_policies) && same_utps(a.web_utps, b.web_utps) &&
           same_bindings(a.web_interfaces, b.web_interfaces, in_b) &&
           a.safe_search == b.safe_search && a.web_file_behind == b.web_file_behind;
}

bool same_wificalling(const daemon_tables &a, const daemon_tables &b) {
    const auto in_b = [&](const char *ifname) { return find_wificalling_interface(b, ifname); };
    return same_records(a.carriers, b.carriers) &&
           same_bindings(a.wificalling_interfaces, b.wificalling_interfaces, in_b) &&
           a.wificalling_file_behind == b.wificalling_file_behind;
}

bool same(const daemon_tables &a, const daemon_tables &b) {
    return same_arc(a, b) && same_applications(a, b) && same_web(a, b) && same_wificalling(a, b);
}

} // namespace jornctl
