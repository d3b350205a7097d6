#include "jornctl/memory/listed_tables.h"

#include "control/lines/arc_listing.h"
#include "control/records/commands.h"
#include "core/text/text.h"
#include "jornctl/client/listings.h"

#include <algorithm>

namespace jornctl {
namespace {

ordered_json listed_policy(const link &policy, const auto &policies) {
    return policy ? ordered_json(policies[*policy].name) : ordered_json(LISTED_NO_POLICY);
}

ordered_json utps_of(const daemon_tables &tables) {
    ordered_json listed = ordered_json::array();
    for (size_t i = 0; i < tables.utps.size(); ++i) {
        const linked_utp &each = tables.utps[i];
        if (each.entry.id == 0)
            continue;
        listed.push_back(
            {{"name", each.entry.name},
             {"id", each.entry.id},
             {"arc_policy", listed_policy(each.policy, tables.policies)},
             {"web_policy", listed_policy(tables.web_utps[i].policy, tables.web_policies)}});
    }
    return listed;
}

std::optional<ordered_json> web_utp(const client &daemon, uint32_t id) {
    return listed(daemon, CMD_UTP_WEB_POLICY_SHOW_REQ, record_bytes(id));
}

std::optional<ordered_json> web_interface(const client &daemon, const char *ifname) {
    return listed(daemon, CMD_INTF_URL_POLICY_SHOW_REQ, ifname);
}

bool shows(const std::optional<ordered_json> &listed, const linked_utp &entry,
           const std::vector<web_policy_wire> &policies) {
    if (!listed || entry.entry.id == 0)
        return !listed && entry.entry.id == 0;
    const ordered_json &policy = (*listed)["policy"];
    return (*listed)["name"] == entry.entry.name && policy.is_null() == !entry.policy &&
           (!entry.policy || (policy["name"] == policies[*entry.policy].name &&
                              policy["uuid"] == policies[*entry.policy].uuid));
}

bool shows(const std::optional<ordered_json> &listed, const linked_web_interface &bound) {
    return listed && (*listed)["enable"] == (bound.binding.enable == 1) &&
           (*listed)["policy"].is_null() == !bound.policy;
}

// A carrier that a binding has lost has its name alone.
ordered_json carriers_of(const linked_wificalling_interface &bound, const daemon_tables &tables) {
    ordered_json carriers = ordered_json::array();
    for (size_t i = 0; std::cmp_less(i, bound.binding.num_profiles); ++i) {
        carriers.push_back({{"pname", bound.binding.profile[i]}});
        if (bound.carriers[i])
            carriers.back()["priority"] = tables.carriers[*bound.carriers[i]].priority;
    }
    return carriers;
}

std::string show_wificalling(const client &daemon) {
    return daemon.send({CMD_WIFICALLING_INTF_SHOW_REQ, {}});
}

// As far as the answer has room for them.
ordered_json bindings_in(const std::string &shown) {
    ordered_json bindings = listing_of(CMD_WIFICALLING_INTF_SHOW_REQ).parse(shown);
    for (ordered_json &binding : bindings) {
        for (ordered_json &carrier : binding["carriers"]) {
            for (const char *key : {"epdg", "fqdn", "ipaddr"})
                carrier.erase(key);
        }
    }
    return bindings;
}

std::string wificalling_contradiction(const daemon_tables &tables, const client &daemon) {
    const std::string shown = show_wificalling(daemon);
    const ordered_json bindings = bindings_in(shown);
    for (const ordered_json &binding : bindings) {
        const std::string ifname = binding["ifname"].get<std::string>();
        const auto *const known = find_wificalling_interface(tables, ifname.c_str());
        if (known == nullptr || binding["carriers"] != carriers_of(*known, tables))
            return "Wi-Fi calling of interface " + ifname;
    }
    const bool is_cut = !listing_of(CMD_WIFICALLING_INTF_SHOW_REQ).cut(shown).empty();
    return is_cut || bindings.size() == tables.wificalling_interfaces.size()
               ? std::string()
               : "the interfaces with Wi-Fi calling";
}

// By its name; where several have it, the UTP's own goes first.
template <typename Policy>
link named(const std::vector<Policy> &policies, const ordered_json &name, uint32_t utp_id) {
    link found;
    for (size_t i = 0; i < policies.size(); ++i) {
        if (name == policies[i].name && (!found || policies[i].utp_id == utp_id))
            found = i;
    }
    return found;
}

bool complete_utps(daemon_tables &tables, const client &daemon) {
    bool is_whole = true;
    for (uint32_t id = UTP_ID_MIN; id <= UTP_ID_MAX; ++id) {
        const auto priority = listed(daemon, CMD_CHECK_PRIORITY_REQ, record_bytes(id));
        const auto policy = std::ranges::find(tables.policies, id, &arc_policy_wire::utp_id);
        is_whole = is_whole && priority.has_value() == (policy != tables.policies.end());
        if (priority && policy != tables.policies.end())
            copy_text(policy->name, (*priority)["name"].get<std::string>());
    }
    tables.utps = {};
    for (const ordered_json &each : listed(daemon, CMD_UTP_SHOW_REQ)) {
        const auto id = each["id"].get<uint32_t>();
        if (id < UTP_ID_MIN || id > UTP_ID_MAX)
            continue;
        linked_utp &entry = tables.utps[id - 1];
        entry.entry.id = id;
        copy_text(entry.entry.name, each["name"].get<std::string>());
        entry.policy = named(tables.policies, each["arc_policy"], id);
        is_whole = is_whole && (entry.policy || each["arc_policy"] == LISTED_NO_POLICY);
        tables.arc_enabled = true;
    }
    return is_whole;
}

bool complete_web_utps(daemon_tables &tables, const client &daemon) {
    bool is_whole = true;
    for (uint32_t id = UTP_ID_MIN; id <= UTP_ID_MAX; ++id) {
        linked_utp &entry = tables.web_utps[id - 1] = {};
        const std::optional<ordered_json> shown = web_utp(daemon, id);
        if (!shown)
            continue;
        entry.entry.id = id;
        copy_text(entry.entry.name, (*shown)["name"].get<std::string>());
        const ordered_json &policy = (*shown)["policy"];
        for (size_t i = 0; !policy.is_null() && !entry.policy && i < tables.web_policies.size();
             ++i) {
            if (policy["uuid"] == tables.web_policies[i].uuid &&
                policy["name"] == tables.web_policies[i].name)
                entry.policy = i;
        }
        if (entry.policy)
            tables.web_policies[*entry.policy].utp_id = id;
        is_whole = is_whole && policy.is_null() == !entry.policy;
    }
    return is_whole;
}

bool complete_bindings(daemon_tables &tables, const client &daemon) {
    bool is_whole = true;
    for (linked_web_interface &each : tables.web_interfaces) {
        const std::optional<ordered_json> shown = web_interface(daemon, each.binding.ifname);
        is_whole = is_whole && shown;
        if (!shown || (*shown)["policy"].is_null())
            each.policy.reset();
    }
    const ordered_json bindings = bindings_in(show_wificalling(daemon));
    for (const ordered_json &binding : bindings) {
        const std::string ifname = binding["ifname"].get<std::string>();
        const auto found = std::ranges::find_if(tables.wificalling_interfaces, [&](auto &each) {
            return ifname == each.binding.ifname;
        });
        is_whole = is_whole && found != tables.wificalling_interfaces.end();
        for (size_t i = 0; found != tables.wificalling_interfaces.end() &&
                           i < std::min(found->carriers.size(), binding["carriers"].size());
             ++i) {
            if (!binding["carriers"][i].contains("priority"))
                found->carriers[i].reset();
        }
    }
    return is_whole && bindings.size() == tables.wificalling_interfaces.size();
}

} // namespace

std::string contradiction(const daemon_tables &tables, const client &daemon) {
    if (listed(daemon, CMD_UTP_SHOW_REQ) != utps_of(tables))
        return "the UTPs";
    for (uint32_t id = UTP_ID_MIN; id <= UTP_ID_MAX; ++id) {
        if (!shows(web_utp(daemon, id), tables.web_utps[id - 1], tables.web_policies))
            return "web UTP " + std::to_string(id);
    }
    for (const linked_web_interface &each : tables.web_interfaces) {
        if (!shows(web_interface(daemon, each.binding.ifname), each))
            return "URL filtering of interface " + std::string(each.binding.ifname);
    }
    return wificalling_contradiction(tables, daemon);
}

listings_fit complete_from_listings(daemon_tables &tables, const client &daemon) {
    listings_fit fit;
    fit.arc = complete_utps(tables, daemon);
    fit.web_utps = complete_web_utps(tables, daemon);
    fit.bindings = complete_bindings(tables, daemon);
    return fit;
}

} // namespace jornctl
