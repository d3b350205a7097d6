#include "webfilter/policy_index.h"

#include "core/text/text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>

namespace {

constexpr int32_t BIT_CATEGORIES = 128;

void add_category(web_category_set &set, int32_t category) {
    if (category < 0)
        return;
    if (category < BIT_CATEGORIES)
        set.bits[category / 64] |= uint64_t{1} << category % 64;
    else
        set.others[set.num_others++] = category;
}

} // namespace

unsigned usable_patterns(const web_pattern_list &list, uint8_t count) {
    const auto *const end = std::begin(list) + std::min<size_t>(count, WEB_PATTERNS_MAX);
    const auto *const first_empty =
        std::find_if(std::begin(list), end, [](const auto &pattern) { return pattern[0] == '\0'; });
    return static_cast<unsigned>(first_empty - std::begin(list));
}

void build_policy_index(web_policy_index &index, const web_policy_wire &policy) {
    index = {};
    std::array<std::string_view, 2 * WEB_PATTERNS_MAX> cores;
    const auto add_list = [&](const web_pattern_list &list, unsigned count, unsigned number) {
        for (unsigned i = 0; i < count; ++i) {
            cores[number + i] = pattern_core(field_text(list[i]));
            if (cores[number + i].empty())
                index.match_all |= uint64_t{1} << (number + i);
        }
    };
    const unsigned white = usable_patterns(policy.whitelist, policy.num_whitelist);
    add_list(policy.whitelist, white, 0);
    if (white == policy.num_whitelist) {
        add_list(policy.blacklist, usable_patterns(policy.blacklist, policy.num_blacklist),
                 web_policy_index::FIRST_BLACK);
    }
    index.patterns.build(cores);

    web_category_set &blocked = index.blocked;
    for (const int32_t category : policy.categories)
        add_category(blocked, category);
    std::sort(blocked.others, blocked.others + blocked.num_others);
}

int first_matching_pattern(const web_policy_index &index, std::string_view lower_case_domain) {
    const uint64_t candidates = index.patterns.candidates(lower_case_domain) | index.match_all;
    for (uint64_t left = candidates; left != 0; left &= left - 1) {
        const auto number = static_cast<unsigned>(std::countr_zero(left));
        if ((index.match_all >> number & 1) != 0 ||
            index.patterns.occurs_in(lower_case_domain, number))
            return static_cast<int>(number);
    }
    return NO_PATTERN;
}

bool is_blocked_category(const web_policy_index &index, int32_t category) {
    const web_category_set &blocked = index.blocked;
    if (category <= 0)
        return false;
    if (category < BIT_CATEGORIES)
        return (blocked.bits[category / 64] >> category % 64 & 1) != 0;
    return std::binary_search(blocked.others, blocked.others + blocked.num_others, category);
}
