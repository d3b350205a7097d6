// Which of up to 64 texts, the needles, may occur in a name, letters A to Z compared without regard
// to case. Built when a configuration arrives, asked with every packet.
//
// Name and needles are known by their signatures, a bit for each pair of neighbouring letters. A
// name whose signature lacks one of a needle's bits can't contain it; one that has them all is to
// be searched. The needles themselves stay where they are.
#pragma once

#include "core/text/text.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

using text_signature = uint64_t;

// 0 of a text without a pair.
constexpr text_signature signature_of(std::string_view lower_case_text) {
    text_signature signature = 0;
    for (size_t i = 0; i + 1 < lower_case_text.size(); ++i) {
        const unsigned pair = static_cast<uint8_t>(lower_case_text[i]) * 31U ^
                              static_cast<uint8_t>(lower_case_text[i + 1]) * 7U;
        signature |= text_signature{1} << ((pair ^ pair >> 6) % 64);
    }
    return signature;
}

template <size_t NEEDLES>
class needle_index {
    static_assert(NEEDLES <= 64);

public:
    // `number` below NEEDLES, a needle of at most 64 bytes. Numbers without one, and with an empty
    // one, are no candidates.
    void set(unsigned number, std::string_view needle) {
        char lower_case[65];
        copy_lower_case(lower_case, needle);
        const uint64_t bit = uint64_t{1} << number;
        present_ = needle.empty() ? present_ & ~bit : present_ | bit;
        const text_signature signature = signature_of(field_text(lower_case));
        low_[number] = static_cast<uint32_t>(signature);
        high_[number] = static_cast<uint32_t>(signature >> 32);
    }

    // The needles that may occur in a name with that signature, as a bit each.
    uint64_t candidates(text_signature name) const {
        const auto without_low = static_cast<uint32_t>(~name);
        const auto without_high = static_cast<uint32_t>(~name >> 32);
        uint8_t may[NEEDLES]; // 0 or 1: the loop becomes vector instructions
        for (size_t n = 0; n < NEEDLES; ++n)
            may[n] = ((low_[n] & without_low) | (high_[n] & without_high)) == 0;
        uint64_t found = 0;
        for (size_t n = 0; n < NEEDLES; n += BYTES)
            found |= uint64_t{bits_of(may + n)} << n;
        return found & present_;
    }

private:
    static constexpr size_t BYTES = 8;
    static_assert(NEEDLES % BYTES == 0);

    // Eight bytes of 0 or 1 as a bit each, the first the lowest.
    static uint8_t bits_of(const uint8_t *bytes) {
        uint64_t word = 0;
        memcpy(&word, bytes, sizeof word);
        if constexpr (std::endian::native == std::endian::little)
            return static_cast<uint8_t>(word * 0x0102040810204080 >> 56);
        else
            return static_cast<uint8_t>(word * 0x8040201008040201 >> 56);
    }

    uint64_t present_ = 0;
    uint32_t low_[NEEDLES] = {}; // halves of their signatures
    uint32_t high_[NEEDLES] = {};
};
