#include "jornctl/table_checks.h"

namespace jornctl {
namespace {

constexpr int32_t UNCATEGORIZED = 0;

// A pattern as the daemon looks for it.
std::string_view core_of(std::string_view pattern) {
    const auto ends = [](std::string_view text, const char *end) { return text.ends_with(end); };
    if (pattern.starts_with('*'))
        pattern.remove_prefix(pattern.starts_with("*.") ? 2 : 1);
    if (ends(pattern, "*"))
        pattern.remove_suffix(ends(pattern, ".*") ? 2 : 1);
    return pattern;
}

void warn_of_patterns(const web_pattern_list &patterns, size_t count, const std::string &list,
                      document &read) {
    for (size_t i = 0; i < count; ++i) {
        const std::string_view core = core_of(patterns[i]);
        const std::string path = list + std::to_string(i);
        if (core.empty())
            read.warn(path, "fits every domain");
        else if (core.find('*') != std::string_view::npos)
            read.warn(path, "never fits, for a \"*\" between other characters stands for itself");
    }
}

void warn_of_policy(const web_policy_wire &policy, size_t index, document &read) {
    if (policy.uuid[0] == '\0' && policy.utp_id == 0)
        read.warn(place("web_policies", index), "nothing can use it without a uuid or utp_id");
    warn_of_far_utp(policy.utp_id, place("web_policies", index, "/utp_id"), read);
    for (size_t i = 0; i < policy.num_categories; ++i) {
        if (policy.categories[i] == UNCATEGORIZED)
            read.warn(place("web_policies", index, "/categories/") + std::to_string(i),
                      "category 0 is never blocked");
    }
    warn_of_patterns(policy.whitelist, policy.num_whitelist,
                     place("web_policies", index, "/whitelist/"), read);
    warn_of_patterns(policy.blacklist, policy.num_blacklist,
                     place("web_policies", index, "/blacklist/"), read);
}

void check_policies(document &read) {
    const std::vector<web_policy_wire> &policies = *read.web_policies;
    check_unique(
        policies, [](const web_policy_wire &policy) { return folded(policy.uuid); }, "web_policies",
        "/uuid");
    check_unique(
        policies,
        [](const web_policy_wire &policy) {
            return policy.utp_id == 0 ? std::string() : std::to_string(policy.utp_id);
        },
        "web_policies", "/utp_id");
    for (size_t i = 0; i < policies.size(); ++i)
        warn_of_policy(policies[i], i, read);
    if (!read.web_interfaces)
        read.warn("/web_policies", "the daemon's bindings stay without a policy, for the document "
                                   "has no web_interfaces");
}

void warn_of_binding(const web_intf_wire &binding, size_t index, document &read) {
    if (binding.op == WEB_INTF_DELETE)
        return;
    if (binding.enable == 0)
        read.warn(place("web_interfaces", index), "without enable nothing is filtered");
    if (binding.policy_uuid[0] != '\0' && read.web_policies &&
        find_by_uuid(*read.web_policies, binding.policy_uuid) == nullptr)
        read.warn(place("web_interfaces", index, "/policy_uuid"),
                  "no policy of the document has it, and the others go");
}

void check_bindings(document &read) {
    check_unique(
        *read.web_interfaces,
        [](const web_intf_wire &binding) { return std::string(binding.ifname); }, "web_interfaces",
        "/ifname");
    for (size_t i = 0; i < read.web_interfaces->size(); ++i)
        warn_of_binding((*read.web_interfaces)[i], i, read);
}

void check_utps(document &read) {
    const std::vector<utp_entry_wire> &entries = *read.web_utps;
    check_unique(
        entries, [](const utp_entry_wire &entry) { return std::to_string(entry.id); }, "web_utps",
        "/id");
    for (size_t i = 0; i < entries.size(); ++i)
        warn_of_far_utp(entries[i].id, place("web_utps", i, "/id"), read);
    if (read.web_policies)
        check_entries(entries, "web_utps", *read.web_policies, "web_policies", read);
}

} // namespace

void check_web(document &read) {
    if (read.web_policies)
        check_policies(read);
    if (read.web_utps)
        check_utps(read);
    if (read.web_interfaces)
        check_bindings(read);
}

} // namespace jornctl
