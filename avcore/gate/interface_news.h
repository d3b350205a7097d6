// What became of the gate's interfaces, as lines for the log.
#pragma once

#include <string>
#include <vector>

namespace avcore {

struct interface_news {
    std::vector<std::string> changes; // one for each that came or went
    std::vector<std::string> failures;

    bool empty() const { return changes.empty() && failures.empty(); }
};

} // namespace avcore
