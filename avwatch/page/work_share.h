// A share of a thread's time, for work that others ask for as often as they like: a quarter of it,
// with what was spared before, up to `most`.
#pragma once

#include <algorithm>
#include <chrono>

namespace avwatch {

class work_share {
public:
    using clock = std::chrono::steady_clock;

    explicit work_share(clock::duration most) : most_(most) {}

    bool is_used_up(clock::time_point now) {
        used_ = std::max(clock::duration(), used_ - (now - seen_) / 4);
        seen_ = now;
        return used_ >= most_;
    }
    void use(clock::duration taken) { used_ += taken; }

private:
    const clock::duration most_;
    clock::duration used_ = {};
    clock::time_point seen_ = clock::now();
};

} // namespace avwatch
