// The section of the ARC policies in the application-policy file. A policy counts with its end
// marker, whatever becomes of the rest of the file.
#pragma once

#include "control/lines/arc_lines.h"
#include "control/records/arc.h"
#include "core/files/section.h"

#include <cstddef>
#include <cstdio>
#include <span>
#include <string_view>

struct pending_arc_policy {
    arc_policy_wire policy;
    unsigned rule_count;
    bool overflow; // more policies came than there is room for
};

// Adds each policy where its block ends.
extern const std::span<const section_row<pending_arc_policy>> ARC_POLICY_SECTION;

// Whether the file can keep the texts of a policy's rules. What can't be kept is reported as
// command 23's.
bool is_storable(const arc_policy_wire &policy);

// Returns 0, or -9 after a line in the log when a write failed. A policy that doesn't fit its limit
// is left out.
int jorn_write_arc_policy_configuration(FILE *file);

// A policy's header line: clears the policy and sets its attributes. Fields that are missing are 0.
void __jorn_parse_policy_config_first(std::string_view line, arc_policy_wire *policy);

// A rule line: fills the policy's rule `*rule_count`, if there is such a rule, and counts the line.
void __jorn_parse_policy_config_rule(std::string_view line, arc_policy_wire *policy,
                                     unsigned *rule_count);
