// What the checks of a document may know of the machine that it is for.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

namespace jornctl {

// What the configuration of avcore gives clients.
struct client_facts {
    std::set<std::string> interfaces;
    std::set<uint32_t> utps;
    std::set<uint32_t> web_utps;
};

// Nothing where nobody could be asked.
struct platform_facts {
    std::optional<std::set<std::string>> applications; // the names that the DPI engine gives
    std::optional<client_facts> clients;
};

// Asks avcore, for half a second at most. On a device nobody listens, and nothing is known.
platform_facts ask_platform();

} // namespace jornctl
