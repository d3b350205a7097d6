#include "jornctl/documents/name_checks.h"
#include "jornctl/documents/table_checks.h"

namespace jornctl {
namespace {

constexpr int32_t UNCATEGORIZED = 0;

void warn_of_patterns(const web_pattern_list &patterns, size_t count, const std::string &list,
                      document &read) {
    for (size_t i = 0; i < count; ++i) {
        const std::string_view core = pattern_core(patterns[i]);
        const std::string path = list + std::to_string(i);
        if (core.empty())
            read.found.warning(path, "fits every domain");
        else if (const std::string doubt = doubt_about_domain(core); !doubt.empty())
            read.found.warning(path, doubt);
    }
}

const std::set<uint32_t> *web_utps_of(const platform_facts &around) {
    return around.clients ? &around.clients->web_utps : nullptr;
}

void warn_of_policy(const web_policy_wire &policy, size_t index, const platform_facts &around,
                    document &read) {
    if (policy.uuid[0] == '\0' && policy.utp_id == 0)
        read.found.warning(place("web_policies", index),
                           "nothing can use it without a uuid or utp_id");
    if (policy.utp_id != 0)
        warn_of_utp(policy.utp_id, place("web_policies", index, "/utp_id"), web_utps_of(around),
                    read);
    for (size_t i = 0; i < policy.num_categories; ++i) {
        if (policy.categories[i] == UNCATEGORIZED)
            read.found.warning(place("web_policies", index, "/categories/") + std::to_string(i),
                               "category 0 is never blocked");
    }
    warn_of_patterns(policy.whitelist, policy.num_whitelist,
                     place("web_policies", index, "/whitelist/"), read);
    warn_of_patterns(policy.blacklist, policy.num_blacklist,
                     place("web_policies", index, "/blacklist/"), read);
}

void check_policies(document &read, const platform_facts &around) {
    const std::vector<web_policy_wire> &policies = *read.web_policies;
    check_unique(
        policies, [](const web_policy_wire &policy) { return folded(policy.uuid); }, "web_policies",
        "/uuid", read);
    check_unique(
        policies,
        [](const web_policy_wire &policy) {
            return policy.utp_id == 0 ? std::string() : std::to_string(policy.utp_id);
        },
        "web_policies", "/utp_id", read);
    for (size_t i = 0; i < policies.size(); ++i)
        warn_of_policy(policies[i], i, around, read);
    if (!read.web_interfaces)
        read.found.warning("/web_policies", "the daemon's bindings stay without a policy, for the "
                                            "document has no web_interfaces");
}

void warn_of_binding(const web_intf_wire &binding, size_t index, const platform_facts &around,
                     document &read) {
    if (binding.op == WEB_INTF_DELETE)
        return;
    warn_of_interface(binding.ifname, place("web_interfaces", index, "/ifname"), around, read);
    if (binding.enable == 0)
        read.found.warning(place("web_interfaces", index), "without enable nothing is filtered");
    if (binding.policy_uuid[0] != '\0' && read.web_policies &&
        !read.found.has_mistake_in("/web_policies") &&
        find_by_uuid(*read.web_policies, binding.policy_uuid) == nullptr)
        read.found.warning(place("web_interfaces", index, "/policy_uuid"),
                           "no policy of the document has it, and the others go");
}

void check_web_bindings(document &read, const platform_facts &around) {
    check_unique(
        *read.web_interfaces,
        [](const web_intf_wire &binding) { return std::string(binding.ifname); }, "web_interfaces",
        "/ifname", read);
    for (size_t i = 0; i < read.web_interfaces->size(); ++i)
        warn_of_binding((*read.web_interfaces)[i], i, around, read);
}

void check_web_utps(document &read, const platform_facts &around) {
    const std::vector<utp_entry_wire> &entries = *read.web_utps;
    check_unique(
        entries,
        [](const utp_entry_wire &entry) {
            return entry.id == 0 ? std::string() : std::to_string(entry.id);
        },
        "web_utps", "/id", read);
    for (size_t i = 0; i < entries.size(); ++i)
        warn_of_utp(entries[i].id, place("web_utps", i, "/id"), web_utps_of(around), read);
    if (read.web_policies)
        check_entries(entries, "web_utps", *read.web_policies, "web_policies", read);
}

} // namespace

void check_web(document &read, const platform_facts &around) {
    if (read.web_policies)
        check_policies(read, around);
    if (read.web_utps)
        check_web_utps(read, around);
    if (read.web_interfaces)
        check_web_bindings(read, around);
}

} // namespace jornctl
