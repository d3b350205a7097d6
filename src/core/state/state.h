// The daemon's state block: statistics and every configuration table, in one place.
//
// Start-up zeroes the block; after that commands and the packet path change it, all from the
// daemon's one thread. The functions of the system's interface have signatures that leave no room
// for it, so they take it from here; others take the part that they need as an argument.
//
// Outside the block: the settings (core/base/settings.h), which the log reads; the flag words of
// the signal handlers and the packet count, which outlive the zeroing (core/base/flags.h); the
// buffers of one message and one reply (control/cmdsock.cpp, core/base/reply.cpp), whose contents
// don't outlive a command; the event channel's socket (core/base/event_channel.cpp), the platform's
// connections (platform/host).
#pragma once

#include "control/records/arc.h"
#include "core/base/record_list.h"
#include "userapps/records/apps.h"
#include "userapps/records/settled.h"
#include "webfilter/records/web_policy.h"
#include "wificalling/records/wificalling.h"

#include <cstdint>

struct hash_table;

// The user port-service list, sorted by name.
struct port_app_list : record_list<port_app> {
    uint32_t port_app_count() const { return count; }
};

// Counters by their ids 1 to 20; slot 0 stays 0.
struct packet_stats {
    uint64_t count[21];
};

struct daemon_state {
    packet_stats stats;

    utp_entry<arc_policy> arc_utp_table[UTP_ID_MAX]; // by id - 1
    utp_entry<web_policy> web_utp_table[UTP_ID_MAX];
    record_list<arc_policy> arc_policy_list;
    uint32_t arc_generation; // changes with every change of what a UTP id leads to

    record_list<web_policy> web_policy_list;
    record_list<web_intf> web_intf_list;
    uint32_t fail_cnt;      // answers in a row that the URL-filtering server can't be reached, 0..6
    uint8_t reachable_flag; // 1 = it is held unreachable

    record_list<wificalling_policy> wificalling_policy_list;
    record_list<wificalling_intf> wificalling_intf_list;

    userdef_table userdef_apps;
    port_app_list port_apps;
    settled_apps settled_userapps;

    hash_table *dns_cache; // owned; core/dns/dns_cache.h
};

extern daemon_state jorn_state;
