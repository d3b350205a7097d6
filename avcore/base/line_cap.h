// Lines for the log that others cause as often as they like: five a second at most, and one that
// follows says how many weren't written.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace avcore {

class line_cap {
public:
    // Whether one more may be written now; it ends with `remark`.
    bool admits(int64_t now_ms) {
        if (now_ms - since_ms_ >= 1000) {
            since_ms_ = now_ms;
            lines_ = 0;
        }
        if (++lines_ <= LINES_A_SECOND)
            return true;
        ++silent_;
        return false;
    }

    std::string remark() {
        const uint64_t silent = std::exchange(silent_, 0);
        return silent > 0 ? " (and " + std::to_string(silent) + " more)" : "";
    }

private:
    static constexpr unsigned LINES_A_SECOND = 5;

    int64_t since_ms_ = 0;
    unsigned lines_ = 0;  // since then
    uint64_t silent_ = 0; // since the last one that was written
};

} // namespace avcore
