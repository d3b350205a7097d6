#include "avwatch/why/fitting.h"

namespace avwatch {

std::optional<part> removable(const outcome &found) {
    return found.by ? found.by : found.definition;
}

// Ends: nothing is found that is gone.
fitting_parts find_fitting(const configuration &wanted, const judged_flow &flow,
                           const platform_answers &answers) {
    part_set gone;
    fitting_parts fitting = {judge(wanted, gone, flow, answers), {}};
    std::optional<part> next = removable(fitting.now);
    while (next && gone.insert(*next).second) {
        fitting.then.push_back(judge(wanted, gone, flow, answers));
        next = removable(fitting.then.back());
    }
    return fitting;
}

} // namespace avwatch
