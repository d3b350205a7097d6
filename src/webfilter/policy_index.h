// What a web policy looks like to a packet: patterns without their wildcards, found through an
// index, and the blocked categories as a set.
//
// Patterns are looked for anywhere in a domain, letters A to Z compared without regard to case. A
// list ends at its count or in front of its first empty pattern; a white list with an empty pattern
// switches the black list off.
#pragma once

#include "webfilter/records/web_policy.h"

#include <cstdint>
#include <string_view>

// The patterns of a list that count.
unsigned usable_patterns(const web_pattern_list &list, uint8_t count);

// Settles the index of a policy whose texts end inside their fields and whose counts are within
// their lists.
void build_policy_index(web_policy_index &index, const web_policy_wire &policy);

inline constexpr int NO_PATTERN = -1;

// The number of the first pattern, white ones first, that occurs in a domain.
int first_matching_pattern(const web_policy &policy, std::string_view lower_case_domain);

// Whether a category is one of the policy's. Ids start with 1.
bool is_blocked_category(const web_policy &policy, int32_t category);
