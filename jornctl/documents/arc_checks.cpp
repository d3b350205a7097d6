#include "jornctl/documents/table_checks.h"

#include "jornctl/documents/name_checks.h"
#include "jornctl/fields/arc_fields.h"

namespace jornctl {
namespace {

// Whether a flow that the later rule fits always fits the earlier one. Rules without a name
// couldn't be read.
bool hides(const arc_rule &earlier, const arc_rule &later) {
    if (earlier.app_name[0] == '\0' || later.app_name[0] == '\0')
        return false;
    if (earlier.app_id == 0 && fits_every_flow(earlier.app_name))
        return true;
    if (earlier.app_id != 0 || later.app_id != 0)
        return earlier.app_id == later.app_id && earlier.cat_id == later.cat_id;
    return strcasestr(later.app_name, earlier.app_name) != nullptr;
}

void warn_of_hidden_rule(const arc_policy_wire &policy, size_t index, const std::string &rules,
                         document &read) {
    for (size_t i = 0; i < index; ++i) {
        if (!hides(policy.rules[i], policy.rules[index]))
            continue;
        read.found.warning(rules + std::to_string(index),
                           "never decides, for what it fits fits " +
                               with_name(rules + std::to_string(i), policy.rules[i].app_name) +
                               " before it");
        return;
    }
}

void warn_of_name(const arc_rule &rule, const std::string &path, const application_names &known,
                  document &read) {
    const bool is_ours = strcmp(rule.cat_name, CATEGORY_NAME_USER_DEFINED) == 0;
    if (rule.app_id != 0 || is_ours || rule.app_name[0] == '\0')
        return;
    if (const std::string doubt = doubt_about_rule(rule.app_name, known); !doubt.empty())
        read.found.warning(path + "/app_name", doubt);
}

void warn_of_rules(const arc_policy_wire &policy, const node &written, const std::string &rules,
                   const application_names &known, document &read) {
    for (size_t i = 0; i < std::min(written.value.size(), std::size(policy.rules)); ++i) {
        const arc_rule &rule = policy.rules[i];
        const std::string path = rules + std::to_string(i);
        if (rule.deny != 0 && (rule.qos != 0 || rule.rate_up != 0 || rule.rate_down != 0))
            read.found.warning(path + "/deny", "what is blocked has no use for qos and rates");
        warn_of_name(rule, path, known, read);
        if (rule.app_id != 0 && !written.at(i).has("cat_id"))
            read.found.warning(path + "/app_id", "without cat_id it fits category 0 only");
        warn_of_hidden_rule(policy, i, rules, read);
    }
}

// Whether clients have the policy by another UTP than its own.
bool has_entry_of(const document &read, const arc_policy_wire &policy,
                  const std::set<uint32_t> &given) {
    return policy.uuid[0] != '\0' && read.utps &&
           std::ranges::any_of(*read.utps, [&](const utp_entry_wire &entry) {
               return equals_ignoring_case(entry.uuid, policy.uuid) && given.contains(entry.id);
           });
}

void warn_of_policy(const arc_policy_wire &policy, size_t index, const platform_facts &around,
                    document &read) {
    const std::set<uint32_t> *given = around.clients ? &around.clients->utps : nullptr;
    if (given != nullptr && has_entry_of(read, policy, *given))
        given = nullptr;
    warn_of_utp(policy.utp_id, place("policies", index, "/utp_id"), given, read);
    if (policy.rules[0].app_name[0] == '\0')
        read.found.warning(place("policies", index),
                           "has no rules, so a restart of the daemon loses it");
    else if (!fits_policy_file(policy))
        read.found.warning(place("policies", index), "too much text for the daemon's file, so a "
                                                     "restart of the daemon loses it");
}

void check_policies(document &read, const node &written, const platform_facts &around) {
    const std::vector<arc_policy_wire> &policies = *read.policies;
    check_unique(
        policies,
        [](const arc_policy_wire &policy) {
            return policy.utp_id == 0 ? std::string() : std::to_string(policy.utp_id);
        },
        "policies", "/utp_id", read);
    check_unique(
        policies, [](const arc_policy_wire &policy) { return folded(policy.uuid); }, "policies",
        "/uuid", read);
    const application_names known(read, around);
    for (size_t i = 0; i < policies.size(); ++i) {
        if (written.at(i).has("rules") && written.at(i).at("rules").value.is_array())
            warn_of_rules(policies[i], written.at(i).at("rules"), place("policies", i, "/rules/"),
                          known, read);
        warn_of_policy(policies[i], i, around, read);
    }
}

void check_arc_utps(document &read, const platform_facts &around) {
    const std::vector<utp_entry_wire> &entries = *read.utps;
    check_unique(
        entries,
        [](const utp_entry_wire &entry) {
            return entry.id == 0 ? std::string() : std::to_string(entry.id);
        },
        "utps", "/id", read);
    for (size_t i = 0; i < entries.size(); ++i)
        warn_of_utp(entries[i].id, place("utps", i, "/id"),
                    around.clients ? &around.clients->utps : nullptr, read);
    if (read.policies)
        check_entries(entries, "utps", *read.policies, "policies", read);
}

} // namespace

void check_arc(document &read, const node &written, const platform_facts &around) {
    if (read.policies)
        check_policies(read, written.at("policies"), around);
    if (read.utps)
        check_arc_utps(read, around);
}

} // namespace jornctl
