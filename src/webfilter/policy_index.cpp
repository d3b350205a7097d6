#include "webfilter/policy_index.h"

#include "core/text/text.h"

#include <algorithm>
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
        set.has_others = true;
}

const web_pattern &pattern_of(const web_policy &policy, unsigned number) {
    constexpr unsigned FIRST_BLACK = web_policy_index::FIRST_BLACK;
    return number < FIRST_BLACK ? policy.whitelist[number] : policy.blacklist[number - FIRST_BLACK];
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
    const auto add_list = [&](const web_pattern_list &list, unsigned count, unsigned number) {
        for (unsigned i = 0; i < count; ++i) {
            const std::string_view core = pattern_core(field_text(list[i]));
            index.patterns.set(number + i, core);
            if (core.empty())
                index.match_all |= uint64_t{1} << (number + i);
        }
    };
    const unsigned white = usable_patterns(policy.whitelist, policy.num_whitelist);
    add_list(policy.whitelist, white, 0);
    if (white == policy.num_whitelist) {
        add_list(policy.blacklist, usable_patterns(policy.blacklist, policy.num_blacklist),
                 web_policy_index::FIRST_BLACK);
    }
    for (const int32_t category : policy.categories)
        add_category(index.blocked, category);
}

int first_matching_pattern(const web_policy &policy, std::string_view lower_case_domain) {
    const web_policy_index &index = policy.index;
    const text_signature signature = signature_of(lower_case_domain);
    const uint64_t candidates = index.patterns.candidates(signature) | index.match_all;
    for (uint64_t left = candidates; left != 0; left &= left - 1) {
        const auto number = static_cast<unsigned>(std::countr_zero(left));
        const std::string_view core = pattern_core(field_text(pattern_of(policy, number)));
        if (lower_case_contains(lower_case_domain, core)) // an empty one, too
            return static_cast<int>(number);
    }
    return NO_PATTERN;
}

bool is_blocked_category(const web_policy &policy, int32_t category) {
    const web_category_set &blocked = policy.index.blocked;
    if (category <= 0)
        return false;
    if (category < BIT_CATEGORIES)
        return (blocked.bits[category / 64] >> category % 64 & 1) != 0;
    return blocked.has_others &&
           std::ranges::find(policy.categories, category) != std::end(policy.categories);
}
