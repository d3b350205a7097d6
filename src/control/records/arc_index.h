// What a policy's rules look like to a packet: which rules can fit at all, found without walking
// them.
//
// Built once, when a policy arrives. A rule with an application id is looked for by id and
// category; a domain rule by two pairs of neighbouring letters that its domain holds and few others
// of the policy do. A flow name that lacks either pair can't contain the domain. What the index
// names is a candidate, to be tested in rule order; what it doesn't name never fits.
#pragma once

#include "control/records/arc.h"

#include <cstdint>

struct arc_rule_index {
    static constexpr unsigned PAIR_BUCKETS = 256;

    uint64_t id_rules;                  // rule n has an application id: bit n
    uint64_t always;                    // domain rules too short to hold a pair
    uint32_t ids[ARC_RULES_PER_POLICY]; // app_id << 16 | cat_id; 0 in the other rules
    uint64_t first_pair[PAIR_BUCKETS];  // domain rules by the hash of a pair
    uint64_t second_pair[PAIR_BUCKETS];
    uint8_t domain_length[ARC_RULES_PER_POLICY];
    char domain[ARC_RULES_PER_POLICY][64]; // in lower case

    // Which bucket a pair of letters in lower case falls into.
    static constexpr unsigned bucket(char a, char b) {
        const unsigned mixed = (static_cast<uint8_t>(a) * 31u) ^ (static_cast<uint8_t>(b) * 7u);
        return (mixed ^ mixed >> 8) % PAIR_BUCKETS;
    }
};
