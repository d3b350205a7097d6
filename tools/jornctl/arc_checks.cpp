#include "jornctl/table_checks.h"

#include "control/lines/arc_lines.h"

#include <array>

namespace jornctl {
namespace {

bool fits_file(const arc_policy_wire &policy) {
    std::array<char, ARC_BLOCK_LIMIT> block;
    size_t length = 0;
    return jorn_format_arc_policy(block.data(), &policy, &length, block.size()) == 0;
}

// Whether a flow that the later rule fits always fits the earlier one.
bool hides(const arc_rule &earlier, const arc_rule &later) {
    if (earlier.app_id != 0 || later.app_id != 0)
        return earlier.app_id == later.app_id && earlier.cat_id == later.cat_id;
    return strcasestr(later.app_name, earlier.app_name) != nullptr;
}

void warn_of_hidden_rule(const arc_policy_wire &policy, size_t index, const std::string &rules,
                         document &read) {
    for (size_t i = 0; i < index; ++i) {
        if (!hides(policy.rules[i], policy.rules[index]))
            continue;
        read.warn(rules + std::to_string(index), "never decides, for what it fits fits " + rules +
                                                     std::to_string(i) + " before it");
        return;
    }
}

void warn_of_rules(const arc_policy_wire &policy, const node &written, const std::string &rules,
                   document &read) {
    for (size_t i = 0; i < written.value.size(); ++i) {
        const arc_rule &rule = policy.rules[i];
        const std::string path = rules + std::to_string(i);
        if (rule.deny != 0 && (rule.qos != 0 || rule.rate_up != 0 || rule.rate_down != 0))
            read.warn(path + "/deny", "what is blocked has no use for qos and rates");
        if (rule.app_id == 0 && strstr(rule.app_name, "*.") != nullptr)
            read.warn(path + "/app_name", "never fits, for \"*\" stands for itself; the name "
                                          "without it fits wherever it stands in a flow's");
        if (rule.app_id != 0 && !written.at(i).has("cat_id"))
            read.warn(path + "/app_id", "without cat_id it fits category 0 only");
        warn_of_hidden_rule(policy, i, rules, read);
    }
}

void warn_of_policies(document &read, const node &written) {
    for (size_t i = 0; i < read.policies->size(); ++i) {
        const arc_policy_wire &policy = (*read.policies)[i];
        if (written.at(i).has("rules"))
            warn_of_rules(policy, written.at(i).at("rules"), place("policies", i, "/rules/"), read);
        warn_of_far_utp(policy.utp_id, place("policies", i, "/utp_id"), read);
        if (policy.rules[0].app_name[0] == '\0')
            read.warn(place("policies", i), "has no rules, so a restart of the daemon loses it");
        else if (!fits_file(policy))
            read.warn(place("policies", i), "too much text for the daemon's file, so a restart of "
                                            "the daemon loses it");
    }
}

void check_policies(document &read, const node &written) {
    const std::vector<arc_policy_wire> &policies = *read.policies;
    check_unique(
        policies, [](const arc_policy_wire &policy) { return std::to_string(policy.utp_id); },
        "policies", "/utp_id");
    check_unique(
        policies, [](const arc_policy_wire &policy) { return folded(policy.uuid); }, "policies",
        "/uuid");
    warn_of_policies(read, written);
}

void check_utps(document &read) {
    const std::vector<utp_entry_wire> &entries = *read.utps;
    check_unique(
        entries, [](const utp_entry_wire &entry) { return std::to_string(entry.id); }, "utps",
        "/id");
    for (size_t i = 0; i < entries.size(); ++i)
        warn_of_far_utp(entries[i].id, place("utps", i, "/id"), read);
    if (read.policies)
        check_entries(entries, "utps", *read.policies, "policies", read);
}

} // namespace

void check_arc(document &read, const node &written) {
    if (read.policies)
        check_policies(read, written.at("policies"));
    if (read.utps)
        check_utps(read);
}

} // namespace jornctl
