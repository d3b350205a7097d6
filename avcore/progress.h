// The progress bar of a file, on standard error when that is a terminal.
#pragma once

#include <cstdint>

namespace avcore {

class progress_bar {
public:
    explicit progress_bar(bool wanted);
    ~progress_bar() { clear(); }

    // Draws ten times a second at most.
    void show(double share, uint64_t frames, int64_t now_ms);
    // Leaves the line to others.
    void clear();

private:
    bool active_;
    bool drawn_ = false;
    int64_t last_ms_ = 0;
};

} // namespace avcore
