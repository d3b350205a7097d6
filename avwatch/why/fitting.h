// What decides about a flow, and what would decide if that weren't there.
//
// Found by taking out, one after the other, what decided, until nothing fits any more; where
// nothing fits and the administrator's definition named the flow, that goes, too, and the flow has
// the name that it would have without it. So the order is the daemon's, whatever it depends on.
#pragma once

#include "avwatch/why/judge.h"

#include <vector>

namespace avwatch {

struct fitting_parts {
    outcome now;
    // Each is what is left to decide without all the parts before it.
    std::vector<outcome> then;
};

fitting_parts find_fitting(const configuration &wanted, const judged_flow &flow,
                           const platform_answers &answers);

// What has to be taken out for the next one to decide; none behind the last.
std::optional<part> removable(const outcome &found);

} // namespace avwatch
