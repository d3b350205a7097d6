// The ARC policies in the application-policy file: a block for each, of a header line and a line
// for each rule that has a name. A policy's name and uuid are not kept. Names are written as they
// are, so a separator inside one doesn't read back.
#pragma once

#include "control/records/arc.h"
#include "core/text/line_format.h"

inline constexpr char ARC_POLICIES_BEGIN[] = "[appPolicy]";
inline constexpr char ARC_POLICIES_END[] = "[appPolicy end]";
inline constexpr char ARC_BLOCK_BEGIN[] = "[policy]";
inline constexpr char ARC_BLOCK_END[] = "[policy end]";

extern const line_format<arc_policy_wire> ARC_HEADER_LINE;
extern const line_format<arc_rule> ARC_RULE_LINE;
