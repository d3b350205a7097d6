// What the TOML's [capture] says: the interface that avcore makes for the daemon's capture.
#pragma once

#include <cstdint>
#include <string>

namespace avcore {

enum class capture_kind {
    veth, // the far end of a pair
    tap,
};

struct capture_settings {
    std::string interface; // empty: none is made
    capture_kind kind = capture_kind::tap;
    uint32_t speed = 10'000; // what a TAP claims, Mbit/s
};

} // namespace avcore
