// The web-filter file: a block of one line for each policy, and a line for each binding. Texts are
// written as they are: one with a ";", or a pattern with a ",", doesn't read back.
#pragma once

#include "core/text/line_format.h"
#include "webfilter/records/web.h"

#include <string_view>

inline constexpr char WEB_POLICIES_BEGIN[] = "[webPolicy]";
inline constexpr char WEB_POLICIES_END[] = "[webPolicy end]";
inline constexpr char WEB_BLOCK_BEGIN[] = "[policy]";
inline constexpr char WEB_BLOCK_END[] = "[policy_end]";
inline constexpr char WEB_INTFS_BEGIN[] = "[intfcfg]";
inline constexpr char WEB_INTFS_END[] = "[intfcfg end]";

// What the texts of a policy must not hold.
inline constexpr std::string_view WEB_POLICY_MARKERS[] = {WEB_BLOCK_END};

inline constexpr char WEB_LIST_SEPARATOR = ','; // inside a field of several values

// A policy's web UTP is not kept. A list goes by the count in front of it.
extern const line_format<web_policy_wire> WEB_POLICY_LINE;
extern const line_format<web_intf_wire> WEB_INTF_LINE;
