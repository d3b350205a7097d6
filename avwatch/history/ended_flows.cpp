#include "avwatch/history/ended_flows.h"

#include <algorithm>
#include <functional>

namespace avwatch {
namespace {

uint64_t mixed(std::string_view id) {
    return std::hash<std::string_view>()(id);
}

} // namespace

bool ended_flows::has(std::string_view id) const {
    return known_.contains(mixed(id));
}

void ended_flows::add(std::string_view id, int64_t now_ms) {
    restore({now_ms, mixed(id)});
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
