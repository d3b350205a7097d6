#include "avcore/web/domain_table.h"

#include <algorithm>
#include <cstring>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace avcore {
namespace {

constexpr size_t HEAD = 2; // the two counts

// A name's first bytes as a number that sorts as they do: most comparisons end with it, without a
// look at the text.
uint64_t sort_key(std::string_view name) {
    uint64_t key = 0;
    for (size_t i = 0; i < sizeof key; ++i)
        key = key << 8 | (i < name.size() ? static_cast<uint8_t>(name[i]) : 0);
    return key;
}

void append(std::string &text, const std::vector<uint16_t> &categories, std::string_view name) {
    text.push_back(static_cast<char>(categories.size()));
    text.push_back(static_cast<char>(name.size()));
    text.append(reinterpret_cast<const char *>(categories.data()),
                categories.size() * sizeof(uint16_t));
    text.append(name);
}

} // namespace

bool domain_table::add(std::string_view name, uint16_t category) {
    static_assert(NAMES_MAX * (HEAD + sizeof category + DOMAIN_LENGTH_MAX) <= UINT32_MAX);
    if (places_.size() == NAMES_MAX)
        return false;
    places_.push_back(static_cast<uint32_t>(text_.size()));
    append(text_, {category}, name.substr(0, DOMAIN_LENGTH_MAX));
    return true;
}

uint16_t domain_table::category_at(size_t at, uint8_t index) const {
    uint16_t category;
    memcpy(&category, text_.data() + at + HEAD + index * sizeof category, sizeof category);
    return category;
}

std::string_view domain_table::name_at(size_t at) const {
    const auto length = static_cast<uint8_t>(text_[at + 1]);
    return std::string_view(text_).substr(at + HEAD + count_at(at) * sizeof(uint16_t), length);
}

struct domain_table::sortable {
    uint64_t key;
    uint32_t place;
};

std::vector<domain_table::sortable> domain_table::take_places() {
    std::vector<sortable> sorted;
    sorted.reserve(places_.size());
    for (const uint32_t place : places_)
        sorted.push_back({sort_key(name_at(place)), place});
    places_ = {};
    // Of equal names the one that came first has the lower place.
    std::sort(sorted.begin(), sorted.end(), [this](const sortable &a, const sortable &b) {
        if (a.key != b.key)
            return a.key < b.key;
        const int order = name_at(a.place).compare(name_at(b.place));
        return order != 0 ? order < 0 : a.place < b.place;
    });
    return sorted;
}

// Writes the text again in the order of look-ups, each name once.
void domain_table::take_text(const std::vector<sortable> &sorted) {
    std::string text;
    text.reserve(text_.size());
    for (size_t i = 0; i < sorted.size();) {
        const std::string_view name = name_at(sorted[i].place);
        std::vector<uint16_t> categories;
        for (; i < sorted.size() && name_at(sorted[i].place) == name; ++i) {
            const uint16_t category = category_at(sorted[i].place, 0);
            if (categories.size() < URLF_CATEGORIES &&
                std::find(categories.begin(), categories.end(), category) == categories.end())
                categories.push_back(category);
        }
        places_.push_back(static_cast<uint32_t>(text.size()));
        append(text, categories, name);
    }
    text_ = std::move(text);
}

void domain_table::settle() {
    take_text(take_places());
    text_.shrink_to_fit();
    places_.shrink_to_fit();
#ifdef __GLIBC__
    malloc_trim(0); // sorting took as much again as what is kept
#endif
}

size_t domain_table::find(std::string_view name) const {
    const auto found = std::lower_bound(
        places_.begin(), places_.end(), name,
        [this](uint32_t place, std::string_view wanted) { return name_at(place) < wanted; });
    return found != places_.end() && name_at(*found) == name ? *found : NOWHERE;
}

} // namespace avcore
