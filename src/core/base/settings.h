// The daemon's settings: what the command line and start-up fix, and the few switches that commands
// turn. They stand beside the state block, and are zeroed with it, because the log needs two of
// them and nothing of the tables.
#pragma once

#include <cstdint>

struct daemon_settings {
    uint8_t daemonize; // "-D"
    uint8_t debug;     // "-d"; command 34 sets it
    char ifname[32];   // capture interface, "-i"
    char conf_path[64];
    char sock_path[32];           // the command socket
    char saved_files_folder[64];  // what outlives a restart
    char video_stream_domain[64]; // of a video CDN; empty = none
    struct wdlm_bus *bus;         // the message bus, open from start-up on; none = no bus
    uint8_t tm_engine_enabled;    // the kernel's DPI engine is loaded
    uint8_t reserved;
    uint8_t arc_enabled; // UTP entries or ARC policies were configured since the last flush
};

inline constexpr char DEFAULT_CONF_PATH[] = "/var/run/jorn.conf";
inline constexpr char DEFAULT_SOCK_PATH[] = "/var/run/jorn.sock";

extern daemon_settings jorn_settings;
