// Which of up to 64 texts, the needles, occur in a name, letters A to Z compared without regard to
// case. Built when a configuration arrives, asked with every packet.
//
// A needle is known by two pairs of neighbouring letters that it holds and few of the others do. A
// name that lacks either pair can't contain it. What `candidates` names is to be tested by
// `occurs_in`; what it doesn't name never occurs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

class needle_index {
public:
    static constexpr size_t NEEDLES_MAX = 64;
    static constexpr size_t NEEDLE_MAX = 64; // bytes

    // Replaces all needles by these, at most NEEDLES_MAX of at most NEEDLE_MAX bytes, numbered in
    // their order. An empty one is a gap: its number is no candidate.
    void build(std::span<const std::string_view> needles);

    // The needles that may occur in a name, as a bit each. The name is in lower case, as it is for
    // `occurs_in`.
    uint64_t candidates(std::string_view lower_case_name) const {
        uint64_t first = 0;
        uint64_t second = 0;
        for (size_t i = 0; i + 1 < lower_case_name.size(); ++i) {
            const unsigned bucket = bucket_of(lower_case_name[i], lower_case_name[i + 1]);
            first |= first_pair_[bucket];
            second |= second_pair_[bucket];
        }
        return (first & second) | always_;
    }

    bool occurs_in(std::string_view lower_case_name, unsigned needle) const;

private:
    static constexpr unsigned PAIR_BUCKETS = 256;

    static constexpr unsigned bucket_of(char a, char b) {
        const unsigned mixed = (static_cast<uint8_t>(a) * 31u) ^ (static_cast<uint8_t>(b) * 7u);
        return (mixed ^ mixed >> 8) % PAIR_BUCKETS;
    }

    void choose_pairs(unsigned needle, const uint16_t (&popularity)[PAIR_BUCKETS]);

    uint64_t always_ = 0;                    // needles too short to hold a pair
    uint64_t first_pair_[PAIR_BUCKETS] = {}; // needles by the hash of a pair
    uint64_t second_pair_[PAIR_BUCKETS] = {};
    uint8_t length_[NEEDLES_MAX] = {};
    char needle_[NEEDLES_MAX][NEEDLE_MAX] = {}; // in lower case
};
