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
inline constexpr size_t ARC_BLOCK_LIMIT = 8096; // a block stays below it, or isn't written

extern const line_format<arc_policy_wire> ARC_HEADER_LINE;
extern const line_format<arc_rule> ARC_RULE_LINE;

// A slot without a name has no line.
bool is_written(const arc_rule &rule);

// Appends one policy's block to the `*length` characters in `text`. Returns 0, or -1 when that
// would reach `capacity`; `text` then holds part of it.
int jorn_format_arc_policy(char *text, const arc_policy_wire *policy, size_t *length,
                           size_t capacity);
