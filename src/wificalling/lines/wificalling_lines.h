// The lines of the Wi-Fi calling file: a carrier, and an interface with its carriers. Names are
// written as they are, so a separator inside one doesn't read back.
#pragma once

#include "core/text/line_format.h"
#include "wificalling/records/wificalling.h"

#include <string_view>

inline constexpr char WIFICALLING_POLICIES_BEGIN[] = "[wificallingPolicy]";
inline constexpr char WIFICALLING_POLICIES_END[] = "[wificallingPolicy end]";
inline constexpr char WIFICALLING_BLOCK_BEGIN[] = "[policy]";
inline constexpr char WIFICALLING_BLOCK_END[] = "[policy_end]";
inline constexpr char WIFICALLING_INTFS_BEGIN[] = "[intfcfg]";
inline constexpr char WIFICALLING_INTFS_END[] = "[intfcfg end]";

// What the texts of a carrier, and those of a binding, must not hold.
inline constexpr std::string_view WIFICALLING_POLICY_MARKERS[] = {WIFICALLING_BLOCK_END};
inline constexpr std::string_view WIFICALLING_INTF_MARKERS[] = {WIFICALLING_INTFS_END};

inline constexpr char WIFICALLING_LIST_SEPARATOR = ','; // inside a field of several values

// PNAME;ALT_NAME;PRIORITY;NUM_EPDG;FQDN,ADDRESS,FQDN,ADDRESS;
extern const line_format<wificalling_policy_wire> WIFICALLING_POLICY_LINE;

// IFNAME;ENABLE;INTF_VALUE;NUM_PROFILES;PROFILE,PROFILE;
extern const line_format<wificalling_intf_wire> WIFICALLING_INTF_LINE;

// Where the count stands in both of them, from 1. A count that its list can't hold is read as the
// nearest that it can; a carrier's has first become a byte, as its record has it.
inline constexpr int WIFICALLING_COUNT_POSITION = 4;
