// A count with its name, for programs that read it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace avcore {

struct named_count {
    std::string name; // a word of small letters and _
    uint64_t count;
};
using named_counts = std::vector<named_count>;

} // namespace avcore
