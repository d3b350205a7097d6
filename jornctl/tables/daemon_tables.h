// The daemon's tables as commands make them: what a command would leave is found out here, and not
// by sending it.
//
// Holds what listings, files and verdicts show of the tables, and what later commands go by. What a
// document can't hold isn't looked for: texts without their ends, counts beyond their lists.
#pragma once

#include "control/records/arc.h"
#include "jornctl/client/client.h"
#include "userapps/records/apps.h"
#include "webfilter/records/web.h"
#include "wificalling/records/wificalling.h"

#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace jornctl {

using link = std::optional<size_t>; // the place of a policy in its list

struct linked_utp {
    utp_entry_wire entry; // an id of 0: not in use
    link policy;
};
using utp_table = std::array<linked_utp, UTP_ID_MAX>; // by id - 1

struct linked_web_interface {
    web_intf_wire binding;
    link policy;
};

struct linked_wificalling_interface {
    wificalling_intf_wire binding;
    std::array<link, PROFILES_PER_INTF> carriers;
};

// What the search hosts of Google, Bing and YouTube resolve to for a side; nothing where they are
// left alone.
using search_addresses = std::array<std::optional<uint32_t>, 3>;
using search_side = std::pair<uint32_t, std::string>; // a UTP, or 0 and an interface

struct daemon_tables {
    std::vector<arc_policy_wire> policies;
    utp_table utps = {};
    std::vector<userdef_app> applications;
    std::vector<web_policy_wire> web_policies;
    utp_table web_utps = {};
    std::vector<linked_web_interface> web_interfaces;
    std::vector<wificalling_policy_wire> carriers;
    std::vector<linked_wificalling_interface> wificalling_interfaces;

    bool arc_enabled = false;
    std::map<search_side, search_addresses> safe_search;
    // The tables changed, and no command has had their file follow.
    bool policy_file_behind = false;
    bool web_file_behind = false;
    bool wificalling_file_behind = false;

    // What the daemon does when it is sent. A command that changes no table does nothing here.
    void take(const command &sent);
    void take(const std::vector<command> &sent);
};

// Whether nothing shows a difference. The order of bindings decides nothing and doesn't count.
bool same_arc(const daemon_tables &a, const daemon_tables &b);
bool same_applications(const daemon_tables &a, const daemon_tables &b);
bool same_web(const daemon_tables &a, const daemon_tables &b);
bool same_wificalling(const daemon_tables &a, const daemon_tables &b);
bool same(const daemon_tables &a, const daemon_tables &b);

// Parts of them.
template <typename Record>
bool same_bytes(const Record &a, const Record &b) {
    return memcmp(&a, &b, sizeof a) == 0;
}
bool same_entry(const linked_utp &a, const linked_utp &b);
bool same_binding(const linked_web_interface &a, const linked_web_interface &b);
bool same_binding(const linked_wificalling_interface &a, const linked_wificalling_interface &b);
const linked_web_interface *find_web_interface(const daemon_tables &in, const char *ifname);
const linked_wificalling_interface *find_wificalling_interface(const daemon_tables &in,
                                                               const char *ifname);

} // namespace jornctl
