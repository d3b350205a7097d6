// avwatch's TOML file, and what every subcommand is given.
#pragma once

#include "avwatch/client/known_clients.h"
#include "avwatch/client/watch_client.h"
#include "avwatch/history/history_settings.h"
#include "avwatch/settings/export_settings.h"
#include "avwatch/settings/http_settings.h"

#include <functional>
#include <string>
#include <vector>

namespace avwatch {

inline constexpr char SETTINGS_FILE[] = "/etc/jorn/avwatch.toml";

struct settings {
    client_aliases aliases;
    history_settings history;
    http_settings http;
    std::vector<export_settings> exports;
};

// The file at SETTINGS_FILE may be missing, another one not. Throws avcore::config_error, which
// names file, line and key.
settings read_settings(const std::string &path);

// The options that hold for all subcommands, and what the chosen one does: its callback fills
// `action`, which returns the exit status and may throw.
struct invocation {
    std::string settings_file = SETTINGS_FILE;
    std::string watch_socket = WATCH_SOCKET;
    bool utc = false;
    std::function<int()> action;
};

} // namespace avwatch
