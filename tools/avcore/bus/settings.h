// [bus] of the TOML file.
#pragma once

#include <string>

namespace avcore {

struct bus_settings {
    std::string listen = "[::]:5670"; // empty: no bus
    // PEM files, all three or none.
    std::string ca;
    std::string certificate;
    std::string key;
    bool chosen = false; // the file has a [bus]: without it a bus that can't start ends nothing

    bool secured() const { return !certificate.empty(); }
};

} // namespace avcore
