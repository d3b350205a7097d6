// The records of Wi-Fi calling: what the controller sends about mobile carriers with their ePDGs
// (evolved packet data gateways, 3GPP TS 23.402) and about the interfaces that they serve.
//
// The payloads of commands 35 (wificalling_policy_wire) and 36 (wificalling_intf_wire) have exactly
// these layouts, in host byte order but for the addresses, and are copied in with memcpy. Texts in
// them are text only once a NUL was seen inside their field. The stored records add the daemon's
// links; their counts are within their lists.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int32_t EPDGS_PER_POLICY = 5;
inline constexpr int32_t PROFILES_PER_INTF = 5;
inline constexpr uint32_t WIFICALLING_POLICIES_MAX = 1024;
inline constexpr uint32_t WIFICALLING_INTFS_MAX = 1024;

struct epdg_entry {
    char fqdn[256];
    uint32_t ipaddr; // network byte order, 0 = none
};
static_assert(sizeof(epdg_entry) == 260);

// What command 35 carries, 1,438 bytes:
//   0 num_epdg   4 priority   8 epdg   1308 alt_name   1373 pname   (1438 padding, not sent)
struct wificalling_policy_wire {
    uint8_t num_epdg; // in use, from the first
    uint8_t padding1[3];
    int32_t priority;
    epdg_entry epdg[EPDGS_PER_POLICY];
    char alt_name[65]; // kept and saved, never compared
    char pname[65];    // the carrier's name and the key; compared with regard to letter case
    uint8_t padding2[2];
};
inline constexpr size_t WIFICALLING_POLICY_PAYLOAD = 1438;
static_assert(sizeof(wificalling_policy_wire) == 1440);
static_assert(offsetof(wificalling_policy_wire, epdg) == 8);
static_assert(offsetof(wificalling_policy_wire, alt_name) == 1308);
static_assert(offsetof(wificalling_policy_wire, pname) == 1373);
static_assert(offsetof(wificalling_policy_wire, padding2) == WIFICALLING_POLICY_PAYLOAD);

struct wificalling_policy : wificalling_policy_wire {
    wificalling_policy *next;
};

// What command 36 carries, 680 bytes:
//   0 enable   1 ifname   20 intf_value   24 num_profiles   28 profile   353 profile_alt
struct wificalling_intf_wire {
    uint8_t enable; // 0 deletes the binding
    char ifname[19];
    int32_t intf_value; // the controller's; saved
    int32_t num_profiles;
    char profile[PROFILES_PER_INTF][65]; // carriers' names, compared without regard to letter case
    char profile_alt[PROFILES_PER_INTF][65];
    uint8_t padding[2];
};
static_assert(sizeof(wificalling_intf_wire) == 680);
static_assert(offsetof(wificalling_intf_wire, intf_value) == 20);
static_assert(offsetof(wificalling_intf_wire, num_profiles) == 24);
static_assert(offsetof(wificalling_intf_wire, profile) == 28);
static_assert(offsetof(wificalling_intf_wire, profile_alt) == 353);

struct wificalling_intf : wificalling_intf_wire {
    wificalling_policy *policy_ref[PROFILES_PER_INTF]; // of wificalling_policy_list, or none
    wificalling_intf *next;
};
