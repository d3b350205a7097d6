// To which minute the counts of now go. Pure: whoever calls says what the clocks show.
//
// The wall clock may jump. Counts go to its minute, but never to one before the latest that there
// is: while the clock is behind, that one takes them all. So a minute once written is never
// followed by an earlier one, and an access point that starts in 1970 goes on where it stopped.
//
// Whether a clock that is more than DOUBT_MS away from the latest minute is wrong, or was wrong
// when that minute was written, nobody knows at first. It is believed when it has stayed so for
// DOUBT_MS. Until then nothing is deleted for its age; then, where it is behind, what stands in the
// future moves to the present minute.
#pragma once

#include <cstdint>

namespace avwatch {

class timeline {
public:
    static constexpr int64_t DOUBT_MS = 3'600'000;
    static constexpr int64_t MINUTE_S = 60;

    // The latest minute that is stored, as seconds since 1970; 0: none.
    explicit timeline(int64_t latest_s) : latest_s_(latest_s) {}

    struct present {
        int64_t minute_s = 0;      // where counts go
        bool is_believed = false;  // so that what is old may go
        bool moves_future = false; // rows after minute_s are to be moved there
    };
    present at(int64_t wall_s, int64_t monotonic_ms);
    void written(const present &done) { latest_s_ = done.minute_s; }

private:
    int64_t latest_s_;
    int64_t doubted_until_ms_ = INT64_MIN; // after a leap forward
    int64_t behind_since_ms_ = -1;         // -1: it isn't, or by little
};

} // namespace avwatch
