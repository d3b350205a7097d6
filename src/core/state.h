// The daemon's state block: settings, statistics and every configuration table, in one place.
//
// Start-up zeroes the block and gives the settings their defaults; after that commands and the
// packet path change it, all from the daemon's one thread. A function takes the part that it needs
// as an argument where its name isn't a prescribed one. What must outlive the zeroing (the flag
// words of the signal handlers) stands in core/flags.h.
#pragma once

#include "control/records.h"
#include "userapps/records.h"
#include "userapps/settled.h"

#include <cstdint>

struct hash_table;

struct daemon_settings {
    uint8_t daemonize; // "-D"
    uint8_t debug;     // "-d"; command 34 sets it
    char ifname[32];   // capture interface, "-i"
    char conf_path[64];
    char sock_path[32];        // the command socket
    uint8_t tm_engine_enabled; // the kernel's DPI engine is loaded
    uint8_t reserved;
    uint8_t arc_enabled; // UTP entries or ARC policies were configured since the last flush
};

inline constexpr char DEFAULT_CONF_PATH[] = "/var/run/jorn.conf";
inline constexpr char DEFAULT_SOCK_PATH[] = "/var/run/jorn.sock";

// Counters by their ids 1 to 20; slot 0 stays 0.
struct packet_stats {
    uint64_t count[21];
};

struct daemon_state {
    daemon_settings settings;
    packet_stats stats;

    utp_entry arc_utp_table[UTP_ID_MAX]; // by id - 1
    utp_entry web_utp_table[UTP_ID_MAX];
    arc_policy *arc_policy_list; // owned, in the order of arrival
    uint32_t arc_generation;     // changes with every change of what a UTP id leads to

    userdef_table userdef_apps;
    port_app_list port_apps; // owned
    settled_apps settled_userapps;

    hash_table *dns_cache; // owned; core/dns_cache.h
};

extern daemon_state jorn_state;
