#include "avcore/report/report_job.h"

#include "avcore/base/monotonic_clock.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace avcore {
namespace {

constexpr uint64_t TURN_NS = 2'000'000;
// As much as a pipe that can be written to takes without a wait.
constexpr size_t PIECE = PIPE_BUF;

} // namespace

report_job::report_job(row_writer rows, end_function end, int fd)
    : rows_(std::move(rows)), end_(std::move(end)), fd_(fd) {}

// False when there is no more to make.
bool report_job::make_more() {
    if (rows_.add_some(text_))
        return true;
    if (const end_function end = std::exchange(end_, nullptr)) {
        text_ += end();
        return true;
    }
    return false;
}

report_job::state report_job::write_some() {
    pollfd out = {fd_, POLLOUT, 0};
    if (poll(&out, 1, 0) == 0)
        return state::waits;
    const ssize_t count = write(fd_, text_.data(), std::min(PIECE, text_.size()));
    if (count < 0)
        return errno == EAGAIN || errno == EINTR ? state::waits : state::failed;
    text_.erase(0, static_cast<size_t>(count));
    return state::goes_on;
}

report_job::state report_job::go_on() {
    const uint64_t until_ns = monotonic_ns() + TURN_NS;
    while (monotonic_ns() < until_ns) {
        if (text_.size() < PIECE && make_more())
            continue;
        if (text_.empty())
            return state::written;
        if (const state now = write_some(); now != state::goes_on)
            return now;
    }
    // Whoever has read its last line may ask for the next one at once.
    return text_.empty() && !make_more() ? state::written : state::goes_on;
}

} // namespace avcore
