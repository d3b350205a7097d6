#include "jornctl/tables/document_of.h"

#include "core/text/text.h"
#include "jornctl/client/apply.h"

namespace jornctl {
namespace {

// An entry that its policy alone makes needs no record of its own.
template <typename Policy>
bool is_made_by_policy(const linked_utp &entry, const std::vector<Policy> &policies) {
    return entry.policy && policies[*entry.policy].utp_id == entry.entry.id &&
           entry.entry.name[0] == '\0' && entry.entry.uuid[0] == '\0';
}

// Each takes its policy along, so the one that has it comes last.
template <typename Policy>
std::vector<utp_entry_wire> entries_of(const utp_table &table,
                                       const std::vector<Policy> &policies) {
    std::vector<utp_entry_wire> entries;
    std::vector<utp_entry_wire> owners;
    for (const linked_utp &each : table) {
        // Without a uuid it would take the UTP away from its policy.
        const bool is_sayable = !each.policy || policies[*each.policy].uuid[0] != '\0';
        if (each.entry.id == 0 || !is_sayable || is_made_by_policy(each, policies))
            continue;
        utp_entry_wire entry = each.entry;
        copy_text(entry.uuid, each.policy ? policies[*each.policy].uuid : "");
        const bool owns = each.policy && policies[*each.policy].utp_id == entry.id;
        (owns ? owners : entries).push_back(entry);
    }
    entries.insert(entries.end(), owners.begin(), owners.end());
    return entries;
}

template <typename Linked>
auto bindings_of(const std::vector<Linked> &linked) {
    std::vector<decltype(Linked::binding)> bindings;
    bindings.reserve(linked.size());
    for (const Linked &each : linked)
        bindings.push_back(each.binding);
    return bindings;
}

} // namespace

document document_of(const daemon_tables &tables) {
    document said;
    said.policies = tables.policies;
    said.utps = entries_of(tables.utps, tables.policies);
    said.applications = tables.applications;
    said.web_policies = tables.web_policies;
    said.web_utps = entries_of(tables.web_utps, tables.web_policies);
    said.web_interfaces = bindings_of(tables.web_interfaces);
    said.carriers = tables.carriers;
    said.wificalling_interfaces = bindings_of(tables.wificalling_interfaces);
    return said;
}

daemon_tables tables_of(const document &wanted) {
    daemon_tables made;
    made.take(commands_of(wanted));
    return made;
}

bool says_all(const document &said, const daemon_tables &tables) {
    daemon_tables made = tables_of(said);
    made.wificalling_file_behind = tables.wificalling_file_behind;
    // A mapping outlives the binding or the UTP that it was made for.
    made.safe_search = tables.safe_search;
    return same(made, tables);
}

} // namespace jornctl
