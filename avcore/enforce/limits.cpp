#include "avcore/enforce/limits.h"

#include <algorithm>
#include <random>

namespace avcore {
namespace {

constexpr uint64_t SMALLEST_BURST = 65'536;
constexpr uint64_t BURSTS_A_SECOND = 5;
constexpr uint32_t ROUND_PARTS = 4;

} // namespace

gate_limit limit_of(uint64_t bytes_per_second) {
    return {bytes_per_second, std::max(SMALLEST_BURST, bytes_per_second / BURSTS_A_SECOND)};
}

limit_book::limit_book(uint32_t buckets)
    : buckets_(buckets), first_(std::random_device()() % buckets) {}

limit_book::place limit_book::place_of(const limit_owner &owner, uint64_t bytes_per_second) {
    if (const auto known = index_.find(owner); known != index_.end()) {
        entry &found = *known->second;
        entries_.splice(entries_.begin(), entries_, known->second);
        const bool changed = found.bytes_per_second != bytes_per_second;
        found.bytes_per_second = bytes_per_second;
        return {found.bucket, changed, false};
    }
    auto bucket = static_cast<uint32_t>(1 + (first_ + entries_.size()) % (buckets_ - 1));
    if (entries_.size() + 1 >= buckets_) {
        bucket = entries_.back().bucket;
        index_.erase(entries_.back().owner);
        entries_.pop_back();
    }
    entries_.push_front({owner, bucket, bytes_per_second});
    index_.emplace(owner, entries_.begin());
    const bool judge_anew = ++handed_out_ >= buckets_ / ROUND_PARTS;
    if (judge_anew)
        handed_out_ = 0;
    return {bucket, true, judge_anew};
}

} // namespace avcore
