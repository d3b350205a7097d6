// Taking connections from a listener, and the pause while there is no descriptor left.
//
// Those who come then wait in the backlog until a descriptor becomes free, here or elsewhere. A
// listener that is watched meanwhile would wake the loop without end.
#pragma once

#include "avcore/base/monotonic_clock.h"

#include <cerrno>

namespace avcore {

class accept_pause {
public:
    static constexpr int FEW = 16; // connections, where few come and others wait for the loop

    // Calls take() for `most` connections at most; it returns false, with errno, when it got none.
    // Returns false when a pause begins, during which the listener isn't to be watched.
    template <typename Take>
    bool take_some(int most, int64_t now_ms, Take take) {
        for (int taken = 0; taken < most; ++taken) {
            if (take())
                continue;
            if (errno != EMFILE && errno != ENFILE)
                break;
            until_ms_ = now_ms + LENGTH_MS;
            return false;
        }
        return true;
    }

    // Whether it ends by now, and the listener is to be watched again.
    bool ends(int64_t now_ms) {
        if (now_ms < until_ms_)
            return false;
        until_ms_ = NEVER_MS;
        return true;
    }

    int64_t until_ms() const { return until_ms_; } // NEVER_MS: there is none

private:
    static constexpr int64_t LENGTH_MS = 100;
    int64_t until_ms_ = NEVER_MS;
};

} // namespace avcore
