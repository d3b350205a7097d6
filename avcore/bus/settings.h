// [bus] of the TOML file. Without certificates nobody is authenticated: such a bus listens and
// dials on loopback alone, unless whoever runs it says that it may be open.
#pragma once

#include <string>

namespace avcore {

struct bus_settings {
    std::string listen = "[::]:5670";
    // PEM files, all three or none.
    std::string ca;
    std::string certificate;
    std::string key;
    bool insecure = false;

    bool secured() const { return !certificate.empty(); }
    bool loopback_only() const { return !secured() && !insecure; }
};

} // namespace avcore
