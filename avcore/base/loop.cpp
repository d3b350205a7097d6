#include "avcore/base/loop.h"

#include <algorithm>
#include <limits>

namespace avcore {

void loop::wait_and_serve(int64_t now_ms) {
    int64_t first_due_ms = NEVER_MS;
    descriptors_.resize(rows_.size());
    due_ms_.resize(rows_.size());
    for (size_t i = 0; i < rows_.size(); ++i) {
        descriptors_[i] = {rows_[i].descriptor(), rows_[i].events, 0};
        due_ms_[i] = rows_[i].due_ms(now_ms);
        first_due_ms = std::min(first_due_ms, due_ms_[i]);
    }
    const int64_t timeout_ms =
        first_due_ms == NEVER_MS
            ? -1
            : std::clamp<int64_t>(first_due_ms - now_ms, 0, std::numeric_limits<int>::max());
    poll(descriptors_.data(), descriptors_.size(), static_cast<int>(timeout_ms));
    const int64_t woken_ms = monotonic_ms();
    for (size_t i = 0; i < rows_.size(); ++i)
        if (rows_[i].serve && (descriptors_[i].revents != 0 || woken_ms >= due_ms_[i]))
            rows_[i].serve(woken_ms);
}

} // namespace avcore
