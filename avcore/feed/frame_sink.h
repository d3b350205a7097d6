// Where frames and their trailers are written: into one end of a pair that somebody made, whose
// other end the daemon captures, or into the interface that avcore made for that.
#pragma once

#include "avcore/feed/capture_interface.h"
#include "shared/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace avcore {

class frame_sink {
public:
    // These throw std::runtime_error, as does `write` when the interface is gone.
    explicit frame_sink(const std::string &interface);
    explicit frame_sink(const capture_settings &wanted);

    // Returns false when the kernel has no room now, or the interface is down.
    bool write(std::span<const uint8_t> bytes);

    // Whether the interface or its peer is down, or was since the last call. What is written then
    // vanishes, and nothing else tells.
    bool link_lost();

    // Its name for people: that of the command line.
    const std::string &name() const { return made_ ? made_->name() : entry_; }
    // The longest frame, trailer included, that gets to the daemon.
    size_t max_size() const { return max_size_; }
    // After how many milliseconds the daemon's capture closes a block.
    int64_t timer_ms() const { return made_ ? made_->timer_ms() : 1; }
    // For people: what isn't as it should be.
    std::vector<std::string> remarks() const;

private:
    void open_entry();
    int descriptor() const { return socket_.valid() ? socket_.get() : made_->tap(); }

    std::optional<capture_interface> made_;
    std::string entry_; // written into, or a TAP device
    unique_fd socket_;  // of the entry, which is no TAP device
    size_t max_size_ = 0;
    uint32_t times_down_ = 0;
};

} // namespace avcore
