#include "jornctl/tables/differences.h"

#include "core/text/text.h"
#include "jornctl/fields/arc_fields.h"
#include "jornctl/fields/userapps_fields.h"
#include "jornctl/fields/web_fields.h"
#include "jornctl/fields/wificalling_fields.h"

#include <algorithm>

namespace jornctl {
namespace {

// A record as it is compared and shown. Records are the same ones by the first of their keys that
// both have in common and no other has taken.
struct view {
    std::string name;
    std::vector<std::string> keys;
    ordered_json words;
};

std::string glued(std::initializer_list<std::string_view> parts) {
    std::string text;
    for (const std::string_view part : parts)
        text += part;
    return text;
}

std::string utp_name(uint32_t id) {
    return "UTP " + std::to_string(id);
}

std::string folded_text(const char *text) {
    std::string lower = text;
    std::ranges::transform(lower, lower.begin(), ascii_lower);
    return lower;
}

// By what it is called, else by what it serves.
template <typename Policy>
std::string policy_name(const Policy &policy) {
    if (policy.name[0] != '\0')
        return policy.name;
    if (policy.uuid[0] != '\0')
        return policy.uuid;
    return utp_name(policy.utp_id);
}

template <const auto &Rows, typename Policy>
std::vector<view> policy_views(const std::vector<Policy> &policies) {
    std::vector<view> views;
    views.reserve(policies.size());
    for (const Policy &each : policies)
        views.push_back({policy_name(each),
                         {folded_text(each.uuid), each.name, utp_name(each.utp_id)},
                         record<Rows>::words(each)});
    return views;
}

template <typename Policy>
ordered_json linked_name(const link &to, const std::vector<Policy> &policies) {
    return to ? ordered_json(policy_name(policies[*to])) : ordered_json();
}

// Its uuid led to the policy, which stands there instead.
template <typename Policy>
std::vector<view> utp_views(const utp_table &table, const std::vector<Policy> &policies) {
    std::vector<view> views;
    for (const linked_utp &each : table) {
        if (each.entry.id == 0)
            continue;
        ordered_json words = record<UTP_FIELDS>::words(each.entry);
        words.erase("uuid");
        words["policy"] = linked_name(each.policy, policies);
        const std::string id = utp_name(each.entry.id);
        const std::string name = each.entry.name;
        views.push_back({name.empty() ? id : glued({name, " (", id, ")"}), {id}, std::move(words)});
    }
    return views;
}

std::vector<view> application_views(const std::vector<userdef_app> &applications) {
    std::vector<view> views;
    views.reserve(applications.size());
    for (const userdef_app &each : applications)
        views.push_back({each.app_name, {each.app_name}, record<APPLICATION_FIELDS>::words(each)});
    return views;
}

std::vector<view> carrier_views(const std::vector<wificalling_policy_wire> &carriers) {
    std::vector<view> views;
    views.reserve(carriers.size());
    for (const wificalling_policy_wire &each : carriers)
        views.push_back({each.pname, {each.pname}, record<CARRIER_FIELDS>::words(each)});
    return views;
}

std::vector<view> web_interface_views(const daemon_tables &in) {
    std::vector<view> views;
    for (const linked_web_interface &each : in.web_interfaces) {
        ordered_json words = record<WEB_INTF_FIELDS>::words(each.binding);
        words["policy"] = linked_name(each.policy, in.web_policies);
        views.push_back({each.binding.ifname, {each.binding.ifname}, std::move(words)});
    }
    return views;
}

std::vector<view> wificalling_interface_views(const daemon_tables &in) {
    std::vector<view> views;
    for (const linked_wificalling_interface &each : in.wificalling_interfaces) {
        ordered_json words = record<WIFICALLING_INTF_FIELDS>::words(each.binding);
        ordered_json &carriers = words["carriers"] = ordered_json::array();
        for (const link &to : each.carriers) {
            if (to)
                carriers.push_back(in.carriers[*to].pname);
        }
        views.push_back({each.binding.ifname, {each.binding.ifname}, std::move(words)});
    }
    return views;
}

struct table_row {
    const char *table;
    const char *kind;
    std::vector<view> (*views)(const daemon_tables &in);
    bool has_order = false; // it decides something
};

constexpr table_row TABLES[] = {
    {"policies", "policy",
     [](const daemon_tables &in) { return policy_views<POLICY_FIELDS>(in.policies); }, true},
    {"utps", "UTP", [](const daemon_tables &in) { return utp_views(in.utps, in.policies); }},
    {"applications", "application",
     [](const daemon_tables &in) { return application_views(in.applications); }, true},
    {"web_policies", "web policy",
     [](const daemon_tables &in) { return policy_views<WEB_POLICY_FIELDS>(in.web_policies); },
     true},
    {"web_utps", "web UTP",
     [](const daemon_tables &in) { return utp_views(in.web_utps, in.web_policies); }},
    {"web_interfaces", "web interface", web_interface_views},
    {"carriers", "carrier", [](const daemon_tables &in) { return carrier_views(in.carriers); },
     true},
    {"wificalling_interfaces", "Wi-Fi calling interface", wificalling_interface_views},
};

// Which view of `after` each of `before` has become.
std::vector<link> partners(const std::vector<view> &before, const std::vector<view> &after) {
    std::vector<link> found(before.size());
    std::vector<bool> taken(after.size());
    const auto pair_by = [&](const auto &fit) {
        for (size_t b = 0; b < before.size(); ++b) {
            for (size_t a = 0; !found[b] && a < after.size(); ++a) {
                if (!taken[a] && fit(before[b], after[a])) {
                    found[b] = a;
                    taken[a] = true;
                }
            }
        }
    };
    pair_by([](const view &b, const view &a) { return b.keys == a.keys && b.words == a.words; });
    const size_t keys = before.empty() ? 0 : before.front().keys.size();
    for (size_t key = 0; key < keys; ++key)
        pair_by([key](const view &b, const view &a) {
            return !b.keys[key].empty() && b.keys[key] == a.keys[key];
        });
    return found;
}

ordered_json names_of(const std::vector<view> &views) {
    ordered_json names = ordered_json::array();
    for (const view &each : views)
        names.push_back(each.name);
    return names;
}

void compare(const table_row &row, const std::vector<view> &before, const std::vector<view> &after,
             std::vector<difference> &found) {
    const auto add = [&](char sign, const std::string &name, ordered_json then, ordered_json now) {
        found.push_back({sign, row.table, row.kind, name, std::move(then), std::move(now)});
    };
    const std::vector<link> became = partners(before, after);
    std::vector<bool> is_new(after.size(), true);
    bool in_order = true;
    size_t last = 0;
    for (size_t b = 0; b < before.size(); ++b) {
        if (!became[b]) {
            add('-', before[b].name, before[b].words, nullptr);
            continue;
        }
        const view &now = after[*became[b]];
        if (before[b].words != now.words)
            add('~', now.name, before[b].words, now.words);
        is_new[*became[b]] = false;
        in_order = in_order && *became[b] >= last;
        last = *became[b];
    }
    for (size_t a = 0; a < after.size(); ++a) {
        if (is_new[a])
            add('+', after[a].name, nullptr, after[a].words);
    }
    // New ones come behind those that stay.
    const bool is_behind = std::ranges::is_sorted(is_new);
    if (row.has_order && (!in_order || !is_behind))
        add('~', "", names_of(before), names_of(after));
}

// By what an element of an array is known, where it is an object.
std::string element_name(const ordered_json &element) {
    for (const char *key : {"app_name", "fqdn", "ipaddr"}) {
        if (element.is_object() && element.contains(key))
            return to_line(element[key]);
    }
    return element.is_object() ? std::string() : to_line(element);
}

void tell(const ordered_json &before, const ordered_json &after, const std::string &place,
          std::vector<std::string> &lines);

void tell_elements(const ordered_json &before, const ordered_json &after, const std::string &place,
                   std::vector<std::string> &lines) {
    std::vector<bool> taken(after.size());
    bool in_order = true;
    size_t last = 0;
    for (const ordered_json &then : before) {
        const std::string name = element_name(then);
        size_t at = 0;
        while (at < after.size() && (taken[at] || element_name(after[at]) != name))
            ++at;
        if (at == after.size()) {
            lines.push_back(glued({place, ": - ", name}));
            continue;
        }
        taken[at] = true;
        in_order = in_order && at >= last;
        last = at;
        tell(then, after[at], glued({place, " ", name}), lines);
    }
    for (size_t at = 0; at < after.size(); ++at) {
        if (!taken[at])
            lines.push_back(glued({place, ": + ", element_name(after[at])}));
    }
    if (!in_order || !std::ranges::is_sorted(taken, std::greater()))
        lines.push_back(glued({place, ": in another order"}));
}

void tell(const ordered_json &before, const ordered_json &after, const std::string &place,
          std::vector<std::string> &lines) {
    if (before == after)
        return;
    if (before.is_array() && after.is_array()) {
        tell_elements(before, after, place, lines);
    } else if (before.is_object() && after.is_object()) {
        ordered_json keys = before;
        keys.update(after);
        for (const auto &[key, value] : keys.items()) {
            const ordered_json then = before.value(key, ordered_json());
            const ordered_json now = after.value(key, ordered_json());
            // A list that has become empty isn't there.
            const bool is_list = then.is_array() || now.is_array();
            const ordered_json nothing = is_list ? ordered_json::array() : ordered_json();
            tell(then.is_null() ? nothing : then, now.is_null() ? nothing : now,
                 place.empty() ? key : glued({place, " ", key}), lines);
        }
    } else {
        const auto shown = [](const ordered_json &value) {
            return value.is_null() ? std::string("none") : to_line(value);
        };
        lines.push_back(glued({place, ": ", shown(before), " -> ", shown(after)}));
    }
}

} // namespace

std::vector<difference> differences(const daemon_tables &before, const daemon_tables &after) {
    std::vector<difference> found;
    for (const table_row &row : TABLES)
        compare(row, row.views(before), row.views(after), found);
    return found;
}

std::vector<std::string> lines_of(const difference &found) {
    if (found.name.empty() && found.before.is_array())
        return {glued({"~ ", found.table, ": in another order"})};
    const std::string named =
        glued({std::string_view(&found.sign, 1), " ", found.kind, " ", to_line(found.name)});
    if (found.sign != '~')
        return {named};
    std::vector<std::string> parts;
    tell(found.before, found.after, "", parts);
    for (std::string &each : parts)
        each = glued({named, ": ", each});
    return parts;
}

ordered_json json_of(const std::vector<difference> &found) {
    ordered_json changes = ordered_json::array();
    for (const difference &each : found)
        changes.push_back({{"change", std::string(1, each.sign)},
                           {"table", each.table},
                           {"name", each.name},
                           {"before", each.before},
                           {"after", each.after}});
    return changes;
}

} // namespace jornctl
