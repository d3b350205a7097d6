// [[export]] of the TOML file: a collector of flows.
#pragma once

#include "avwatch/history/application_names.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace avwatch {

inline constexpr size_t EXPORTS_MAX = 4;
inline constexpr char IPFIX_PORT[] = "4739"; // IANA's
inline constexpr uint32_t TIMEOUT_S_MAX = 3'600;

struct export_settings {
    std::string target;     // as the file has it
    std::string host, port; // of it
    uint32_t active_s = 10, inactive_s = 10;
    uint32_t refresh_s = 60; // templates and tables
    bool clients = true;
    names_kept names = names_kept::full;
    std::optional<uint32_t> enterprise; // whose elements those of our own are; nothing: none
    std::string access_point;           // a MAC address; empty: that of the client's interface
};

} // namespace avwatch
