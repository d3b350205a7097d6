#include "avcore/enforce/urgency.h"

#include "avcore/base/monotonic_clock.h"

#include <cstring>
#include <pthread.h>
#include <sched.h>

namespace avcore {
namespace {

constexpr uint64_t WINDOW_NS = 200'000'000;
constexpr uint64_t LITTLE = 4; // a quarter of the time at most

uint64_t used_ns() {
    timespec used = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<uint64_t>(used.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(used.tv_nsec);
}

} // namespace

urgency::urgency(const say_function &say) : since_ns_(monotonic_ns()), used_until_ns_(used_ns()) {
    const int error = set(true);
    granted_ = error == 0;
    if (!granted_)
        say(std::string("no real-time priority (") + strerror(error) +
            "): while the machine is busy verdicts come late");
}

int urgency::set(bool urgent) {
    sched_param param = {};
    param.sched_priority = urgent ? sched_get_priority_min(SCHED_RR) : 0;
    urgent_ = urgent;
    return pthread_setschedparam(pthread_self(),
                                 (urgent ? SCHED_RR : SCHED_OTHER) | SCHED_RESET_ON_FORK, &param);
}

void urgency::exempt(const std::function<void()> &work) {
    const uint64_t used_before_ns = used_ns();
    work();
    used_until_ns_ += used_ns() - used_before_ns;
}

void urgency::look(uint64_t now_ns) {
    if (!granted_ || now_ns - since_ns_ < WINDOW_NS)
        return;
    const uint64_t used_now_ns = used_ns();
    const bool little = (used_now_ns - used_until_ns_) * LITTLE < now_ns - since_ns_;
    since_ns_ = now_ns;
    used_until_ns_ = used_now_ns;
    if (little != urgent_)
        set(little);
}

} // namespace avcore
