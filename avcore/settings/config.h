// The TOML file: who gets which profile, and what the platform says of itself. A mistake in it ends
// the start, or leaves what was read before: with a line for each table in which there is one, that
// names the file, the line and the key.
#pragma once

#include "avcore/base/config_text.h"
#include "avcore/base/ip_address.h"
#include "avcore/bus/settings.h"
#include "avcore/frames/frame.h"
#include "avcore/records/capture_settings.h"
#include "avcore/records/enforce_settings.h"
#include "platform/host/messages/av_messages.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace avcore {

// What the trailer says about one side of a flow.
struct side_profile {
    std::string if_name; // empty: the one by which the client's frames come
    uint32_t if_index = 0;
    uint32_t utp_id = 0;
};

// And what a flow takes from its client.
struct client_profile {
    side_profile side;
    uint32_t web_utp[2] = {0, 0}; // the trailer's words 2 and 3
    uint32_t filter_type = 0;     // AV_FILTER_URL and AV_FILTER_WIFICALLING; DPI is avcore's own
};

// All selectors that a rule names must fit. A rule with neither MAC address nor network fits
// whoever is the client of a flow captured on that interface.
struct client_rule {
    std::optional<mac_address> mac;
    std::optional<ip_network> network;
    std::string captured_on;
    client_profile profile;
};

// One whose DNS answers may name servers; `mac`: it is a client.
struct resolver {
    ip_address address;
    std::optional<mac_address> mac;
};

// Of a client whose frames come out of a file.
inline constexpr char UNSEEN_INTERFACE[] = "wlan0";

struct config {
    client_profile client = {.side = {.if_name = "", .if_index = 1}};
    side_profile uplink = {.if_name = "eth0", .if_index = 2};
    std::vector<client_rule> rules; // the first that fits wins
    std::map<std::string, std::string, std::less<>> platform_values = {{AV_KEY_DPI_ENGINE, "1"}};
    bool dpi = true;
    std::optional<bus_settings> bus; // none: there is no bus
    capture_settings capture;
    std::vector<std::string> inline_interfaces; // of clients, at which verdicts are enforced
    enforce_settings enforce;
    std::optional<std::vector<resolver>> resolvers; // none: any beyond the clients
    std::vector<std::string> categories;            // FILE or FILE=CATEGORY, as on the command line
    std::string safe_search;                        // a folder; empty: none
    std::vector<std::string> warnings; // of what holds and may not be meant, with file and line
};

// Both throw config_error. `name` stands for the file in messages.
config read_config(const std::string &path);
config parse_config(std::string_view text, const std::string &name);

} // namespace avcore
