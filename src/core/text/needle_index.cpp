#include "core/text/needle_index.h"

#include "core/text/text.h"

#include <algorithm>
#include <cstring>

void needle_index::build(std::span<const std::string_view> needles) {
    *this = {};
    uint16_t popularity[PAIR_BUCKETS] = {};
    const size_t count = std::min(needles.size(), NEEDLES_MAX);
    for (size_t n = 0; n < count; ++n) {
        const std::string_view text = needles[n].substr(0, NEEDLE_MAX);
        std::transform(text.begin(), text.end(), needle_[n], ascii_lower);
        length_[n] = static_cast<uint8_t>(text.size());
        for (size_t i = 0; i + 1 < text.size(); ++i)
            ++popularity[bucket_of(needle_[n][i], needle_[n][i + 1])];
    }
    for (unsigned n = 0; n < count; ++n) {
        if (length_[n] != 0)
            choose_pairs(n, popularity);
    }
}

bool needle_index::occurs_in(std::string_view lower_case_name, unsigned needle) const {
    return memmem(lower_case_name.data(), lower_case_name.size(), needle_[needle],
                  length_[needle]) != nullptr;
}

// The two pairs of a needle that the fewest needles share; the same pair twice when it holds only
// one.
void needle_index::choose_pairs(unsigned needle, const uint16_t (&popularity)[PAIR_BUCKETS]) {
    const char *text = needle_[needle];
    const uint64_t bit = uint64_t{1} << needle;
    if (length_[needle] < 2) {
        always_ |= bit;
        return;
    }
    unsigned rarest = bucket_of(text[0], text[1]);
    unsigned second = rarest;
    for (unsigned i = 1; i + 1u < length_[needle]; ++i) {
        const unsigned bucket = bucket_of(text[i], text[i + 1]);
        if (bucket == rarest || bucket == second)
            continue;
        if (popularity[bucket] < popularity[rarest]) {
            second = rarest;
            rarest = bucket;
        } else if (second == rarest || popularity[bucket] < popularity[second]) {
            second = bucket;
        }
    }
    first_pair_[rarest] |= bit;
    second_pair_[second] |= bit;
}
