// What a program waits for, as rows in the order of serving: each has a descriptor, a time when it
// is due, or both, and is served when either has come.
#pragma once

#include "avcore/base/monotonic_clock.h"

#include <cstdint>
#include <functional>
#include <poll.h>
#include <utility>
#include <vector>

namespace avcore {

class loop {
public:
    struct row {
        // Both are asked before every wait; -1 and NEVER_MS leave them out.
        std::function<int()> descriptor = [] { return -1; };
        std::function<int64_t(int64_t now_ms)> due_ms = [](int64_t) { return NEVER_MS; };
        // Without blocking; none: it only wakes the loop.
        std::function<void(int64_t now_ms)> serve = nullptr;
        short events = POLLIN;
    };

    void add(row added) { rows_.push_back(std::move(added)); }

    // Waits once, as a turn that began at `now_ms`, and serves what is ready or due.
    void wait_and_serve(int64_t now_ms);

private:
    std::vector<row> rows_;
    std::vector<pollfd> descriptors_; // of the present wait, by row
    std::vector<int64_t> due_ms_;     // as well
};

} // namespace avcore
