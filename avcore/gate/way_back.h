// The device by which packets that were held go back into the kernel: a TAP device whose program
// puts each at the ingress of the interface that it was taken from, marked as one that comes back.
#pragma once

#include "avcore/gate/attach_way.h"
#include "shared/unique_fd.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace avcore {

class way_back {
public:
    // Throws std::runtime_error.
    way_back(const std::string &pins, int program_fd, std::optional<attach_way> wanted);

    // A frame as it is on the wire, tags and all. False when the kernel doesn't take it.
    bool write(uint32_t if_index, std::vector<uint8_t> frame);

    uint32_t index() const { return static_cast<uint32_t>(index_); }
    bool is_up() const; // somebody else may take it down or away

private:
    unique_fd device_;
    int index_ = 0;
};

} // namespace avcore
