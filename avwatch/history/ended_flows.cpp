#include "avwatch/history/ended_flows.h"

#include <algorithm>

namespace avwatch {

void ended_flows::add(uint64_t id, int64_t now_ms) {
    restore({now_ms, id});
    ++unwritten_;
    drop_old(now_ms);
}

void ended_flows::restore(const entry &written) {
    entries_.push_back(written);
    known_.insert(written.id);
}

void ended_flows::clear() {
    entries_.clear();
    known_.clear();
    unwritten_ = 0;
}

void ended_flows::drop_old(int64_t now_ms) {
    while (entries_.size() > MAX || now_ms - entries_.front().at_ms > KEPT_MS) {
        known_.erase(entries_.front().id);
        entries_.pop_front();
    }
    unwritten_ = std::min(unwritten_, entries_.size());
}

} // namespace avwatch
