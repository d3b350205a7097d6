// Which flows have ended of late, by their numbers. After a restart of either side avcore is asked
// for the ends of some time before, for the last ones may not have been told, or not have been
// committed; those that have been aren't counted again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_set>

namespace avwatch {

class ended_flows {
public:
    // Longer than avcore takes to tell of an end, and is asked for.
    static constexpr int64_t KEPT_MS = 60'000;
    static constexpr size_t MAX = 65'536; // the gate knows no more flows

    struct entry {
        int64_t at_ms;
        uint64_t id; // its number
    };

    bool has(uint64_t id) const { return known_.contains(id); }
    void add(uint64_t id, int64_t now_ms);
    void restore(const entry &written);
    void clear();

    // The latest come last.
    const std::deque<entry> &all() const { return entries_; }
    size_t unwritten() const { return unwritten_; } // of the last ones
    void written() { unwritten_ = 0; }
    void forget_rows() { unwritten_ = entries_.size(); }

private:
    void drop_old(int64_t now_ms);

    std::deque<entry> entries_;
    std::unordered_set<uint64_t> known_;
    size_t unwritten_ = 0;
};

} // namespace avwatch
