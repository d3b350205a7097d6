#include "jornctl/cross_checks.h"

#include "control/lines/arc_lines.h"
#include "jornctl/failure.h"

#include <array>
#include <cstring>
#include <map>
#include <strings.h>

namespace jornctl {
namespace {

std::string place(const char *table, size_t index, const char *key = "") {
    return std::string("/") + table + '/' + std::to_string(index) + key;
}

// `id_of` gives a number that only one record of the table may have.
template <typename Record>
void check_unique(const std::vector<Record> &records, uint32_t Record::*id, const char *table,
                  const char *key) {
    std::map<uint32_t, size_t> owners;
    for (size_t i = 0; i < records.size(); ++i) {
        const auto [owner, is_first] = owners.try_emplace(records[i].*id, i);
        if (!is_first)
            throw refused(place(table, i, key) + ": is the same as in " +
                          place(table, owner->second) + ", and only one of them would count");
    }
}

const arc_policy_wire *find_by_uuid(const std::vector<arc_policy_wire> &policies,
                                    const char *uuid) {
    for (const arc_policy_wire &policy : policies) {
        if (strcasecmp(policy.uuid, uuid) == 0)
            return &policy;
    }
    return nullptr;
}

void check_policy_uuids(const std::vector<arc_policy_wire> &policies) {
    for (size_t i = 0; i < policies.size(); ++i) {
        const arc_policy_wire *const first = find_by_uuid(policies, policies[i].uuid);
        if (policies[i].uuid[0] != '\0' && first != &policies[i])
            throw refused(place("policies", i, "/uuid") + ": is the same as in " +
                          place("policies", static_cast<size_t>(first - policies.data())) +
                          ", and only the first would be found");
    }
}

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

void warn_of_far_utp(uint32_t id, const std::string &path, document &read) {
    if (id > UTP_ID_LOOKUP_MAX)
        read.warn(path, "packets never find a UTP beyond 63");
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

// Throws refused where the entry takes the UTP of a policy that it doesn't name.
void check_utp_owner(const utp_entry_wire &utp, const std::string &path,
                     const arc_policy_wire *named, const std::vector<arc_policy_wire> &policies) {
    for (size_t i = 0; i < policies.size(); ++i) {
        if (policies[i].utp_id == utp.id && &policies[i] != named)
            throw refused(path + ": takes UTP " + std::to_string(utp.id) + " away from " +
                          place("policies", i) + "; give it that policy's uuid or another id");
    }
}

void check_utps(document &read) {
    read.warn("/utps", "the web UTP table is emptied with this one");
    for (size_t i = 0; i < read.utps->size(); ++i) {
        const utp_entry_wire &utp = (*read.utps)[i];
        warn_of_far_utp(utp.id, place("utps", i, "/id"), read);
        if (!read.policies)
            continue;
        const arc_policy_wire *const named =
            utp.uuid[0] == '\0' ? nullptr : find_by_uuid(*read.policies, utp.uuid);
        if (utp.uuid[0] != '\0' && named == nullptr)
            read.warn(place("utps", i, "/uuid"),
                      "no policy of the document has it, and the others go");
        check_utp_owner(utp, place("utps", i), named, *read.policies);
    }
}

void warn_of_applications(document &read) {
    for (size_t i = 0; i < read.applications->size(); ++i) {
        const userdef_app &app = (*read.applications)[i];
        if (app.dst_family == 0 && app.dst_port == 0 && app.protocol == 0)
            read.warn(place("applications", i),
                      "every packet fits, for there is no dst_ip, dst_port or protocol");
    }
}

} // namespace

void check_across(document &read, const node &written) {
    if (read.policies) {
        check_unique(*read.policies, &arc_policy_wire::utp_id, "policies", "/utp_id");
        check_policy_uuids(*read.policies);
        warn_of_policies(read, written.at("policies"));
    }
    if (read.utps) {
        check_unique(*read.utps, &utp_entry_wire::id, "utps", "/id");
        check_utps(read);
    }
    if (read.applications)
        warn_of_applications(read);
}

} // namespace jornctl
