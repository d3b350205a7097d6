#include "avcore/bus/ground.h"

#include <algorithm>

namespace avcore {

void complaints::tell(const std::string &line, int64_t now_ms, uint64_t &unsaid) {
    std::erase_if(told_, [&](const auto &told) { return now_ms - told.second >= REPEAT_MS; });
    if (told_.size() >= MAX_LINES || !told_.emplace(line, now_ms).second) {
        ++unsaid;
        return;
    }
    std::string shown = line;
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char c) { return c < ' ' || c > '~'; }, '?');
    say_("bus: " + shown);
}

} // namespace avcore
