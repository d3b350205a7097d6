// The interface into which frames and their trailers are written: one end of a pair whose other end
// the daemon captures.
#pragma once

#include "shared/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace avcore {

class frame_sink {
public:
    // Throws std::runtime_error, as does `write` when the interface is gone.
    explicit frame_sink(const std::string &interface);

    // Returns false when the kernel has no room now, or the interface is down.
    bool write(std::span<const uint8_t> bytes);

    // Whether the interface or its peer is down, or was since the last call. What is written then
    // vanishes, and nothing else tells.
    bool link_lost();

    // The longest frame, trailer included, that the interface takes.
    size_t max_size() const { return max_size_; }

private:
    std::string interface_;
    unique_fd socket_;
    size_t max_size_ = 0;
    uint32_t times_down_ = 0;
};

} // namespace avcore
