// What has to hold of every input; where it doesn't, the process ends, which is a finding.
#pragma once

#include <cstdlib>

inline void demand(bool holds) {
    if (!holds)
        abort();
}
