// Many domains with the categories that lists give them: a million names in one block of text and
// an index, sorted, so that neither memory nor the cost of a look-up depends on who wrote the
// lists.
#pragma once

#include "webfilter/records/web.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace avcore {

class domain_table {
public:
    static constexpr size_t NAMES_MAX = 4'000'000;   // added, all lists together
    static constexpr size_t DOMAIN_LENGTH_MAX = 253; // of a domain

    // `name` is in lower case and DOMAIN_LENGTH_MAX long at most. Returns false when there is no
    // more room.
    bool add(std::string_view name, uint16_t category);
    // Makes what was added findable. Nothing is added behind it.
    void settle();

    // The categories that lists gave this very name, in the lists' order and
    // URLF_CATEGORIES at most; calls `take` with each.
    template <typename Take>
    void each_category(std::string_view name, Take take) const {
        const size_t at = find(name);
        for (uint8_t i = 0; at != NOWHERE && i < count_at(at); ++i)
            take(category_at(at, i));
    }

    size_t names() const { return places_.size(); }

private:
    static constexpr size_t NOWHERE = SIZE_MAX;
    struct sortable;

    // A record in the text: u8 number of categories, u8 length of the name, the categories, the
    // name.
    uint8_t count_at(size_t at) const { return static_cast<uint8_t>(text_[at]); }
    uint16_t category_at(size_t at, uint8_t index) const;
    std::string_view name_at(size_t at) const;
    size_t find(std::string_view name) const;
    std::vector<sortable> take_places(); // in the names' order
    void take_text(const std::vector<sortable> &sorted);

    std::string text_;
    std::vector<uint32_t> places_; // of the records, by name once they are settled
};

} // namespace avcore
