// What the checks of a document's tables have in common.
#pragma once

#include "core/text/text.h"
#include "jornctl/base/json.h"
#include "jornctl/documents/documents.h"

#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace jornctl {

// The tables, each with those that its records name.
void check_arc(document &read, const node &written, const platform_facts &around);
void check_web(document &read, const platform_facts &around);
void check_wificalling(document &read, const platform_facts &around);

// The JSON path of a record, or of a key in it.
std::string place(const char *table, size_t index, const char *key = "");
// A name whose letter case doesn't count, as it is compared.
std::string folded(const char *name);
// Of a UTP that packets never find, or that no client has among `given`.
void warn_of_utp(uint32_t id, const std::string &path, const std::set<uint32_t> *given,
                 document &read);
void warn_of_interface(const char *ifname, const std::string &path, const platform_facts &around,
                       document &read);

// What a record is called in its document.
template <typename Record>
const char *name_of(const Record &record) {
    if constexpr (requires { record.pname; })
        return record.pname;
    else if constexpr (requires { record.ifname; })
        return record.ifname;
    else
        return record.name;
}

// Finds a mistake where two records have one key. `key_of` gives it, or an empty text for a record
// without one.
template <typename Record, typename KeyOf>
void check_unique(const std::vector<Record> &records, KeyOf key_of, const char *table,
                  const char *key, document &read) {
    std::map<std::string, size_t> owners;
    for (size_t i = 0; i < records.size(); ++i) {
        const std::string value = key_of(records[i]);
        if (value.empty())
            continue;
        const auto [owner, is_first] = owners.try_emplace(value, i);
        if (!is_first)
            read.found.mistake(
                place(table, i, key),
                "is the same as in " +
                    with_name(place(table, owner->second), name_of(records[owner->second])) +
                    ", and only one of them would count");
    }
}

template <typename Policy>
const Policy *find_by_uuid(const std::vector<Policy> &policies, const char *uuid) {
    for (const Policy &policy : policies) {
        if (equals_ignoring_case(policy.uuid, uuid))
            return &policy;
    }
    return nullptr;
}

// Finds a mistake where an entry takes the UTP of a policy that it doesn't name. Warns of an entry
// whose policy isn't in the document, which empties the policies' table. Says nothing while a
// policy can't be read: it may be the one that is named.
template <typename Policy>
void check_entries(const std::vector<utp_entry_wire> &entries, const char *entry_table,
                   const std::vector<Policy> &policies, const char *policy_table, document &read) {
    if (read.found.has_mistake_in(std::string("/") + policy_table))
        return;
    for (size_t i = 0; i < entries.size(); ++i) {
        const utp_entry_wire &entry = entries[i];
        const Policy *const named =
            entry.uuid[0] == '\0' ? nullptr : find_by_uuid(policies, entry.uuid);
        if (entry.uuid[0] != '\0' && named == nullptr)
            read.found.warning(place(entry_table, i, "/uuid"),
                               "no policy of the document has it, and the others go");
        for (size_t p = 0; p < policies.size(); ++p) {
            if (policies[p].utp_id == entry.id && &policies[p] != named)
                read.found.mistake(place(entry_table, i),
                                   "takes UTP " + std::to_string(entry.id) + " away from " +
                                       with_name(place(policy_table, p), policies[p].name) +
                                       "; give it that policy's uuid or another id");
        }
    }
}

} // namespace jornctl
