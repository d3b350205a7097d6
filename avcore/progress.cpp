#include "avcore/progress.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace avcore {
namespace {

constexpr int64_t REDRAW_MS = 100;
constexpr int WIDTH = 40;

} // namespace

progress_bar::progress_bar(bool wanted) : active_(wanted && isatty(STDERR_FILENO) == 1) {}

void progress_bar::show(double share, uint64_t frames, int64_t now_ms) {
    if (!active_ || (drawn_ && now_ms - last_ms_ < REDRAW_MS))
        return;
    drawn_ = true;
    last_ms_ = now_ms;
    share = std::clamp(share, 0.0, 1.0);
    std::string bar(static_cast<size_t>(share * WIDTH), '=');
    bar.resize(WIDTH, ' ');
    fprintf(stderr, "\r[%s] %3d%%  %llu frames", bar.c_str(), static_cast<int>(share * 100),
            static_cast<unsigned long long>(frames));
    fflush(stderr);
}

void progress_bar::clear() {
    if (drawn_)
        fputs("\r\033[K", stderr);
    drawn_ = false;
}

} // namespace avcore
