// Who goes when a connection comes and there is no room.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace avcore {

struct admitted {
    bool known = false;   // it has said who it is
    int64_t heard_ms = 0; // when it came or brought its last message
    std::string_view address;
};

// The index of the connection to end; `connections` isn't empty. Strangers go first, those of the
// address that has most of them, so that one host's flood costs others nothing; then whoever is
// silent for longest.
size_t choose_victim(std::span<const admitted> connections);

} // namespace avcore
