// What a policy's rules look like to a packet: which rules can fit at all, found without walking
// them.
//
// Built when a policy arrives. A rule with an application id is looked for by id and category, a
// domain rule by its domain. What the index names is a candidate, to be tested in rule order; what
// it doesn't name never fits.
#pragma once

#include "control/records/arc.h"
#include "core/text/needle_index.h"

#include <cstdint>

struct arc_rule_index {
    uint64_t id_rules;                          // rule n has an application id: bit n
    uint32_t ids[ARC_RULES_PER_POLICY];         // app_id << 16 | cat_id; 0 in the other rules
    needle_index<ARC_RULES_PER_POLICY> domains; // of the domain rules, under the rules' numbers
};
