// The records of application recognition and control (ARC): what the controller sends about user
// traffic profiles (UTPs) and their policies, and the tables that keep it.
//
// The payloads of commands 20 (utp_entry_wire), 23 (arc_policy_wire) and 26 (arc_policy_log_cfg)
// have exactly these layouts, in host byte order, and are copied in with memcpy. Texts in them are
// text only once a NUL was seen inside their field; the commands cut them there. The stored records
// add the daemon's links.
#pragma once

#include "platform/records.h"

#include <cstddef>
#include <cstdint>

inline constexpr uint32_t UTP_ID_MIN = 1;
inline constexpr uint32_t UTP_ID_MAX = 64;                   // ids that a table has a slot for
inline constexpr uint32_t UTP_ID_LOOKUP_MAX = AV_UTP_ID_MAX; // ids that a packet's look-up finds
inline constexpr size_t ARC_RULES_PER_POLICY = 64;
inline constexpr uint32_t ARC_POLICIES_MAX = 1024;
inline constexpr uint16_t CATEGORY_USER_DEFINED = 0x8000;
inline constexpr char CATEGORY_NAME_USER_DEFINED[] = "User Defined";

// One rule, 112 bytes:   0 app_id   2 cat_id   8 app_name   72 cat_name   104 deny   105 qos
//                      106 rate_up   108 rate_down
struct arc_rule {
    uint16_t app_id; // 0 makes it a domain rule
    uint16_t cat_id; // CATEGORY_USER_DEFINED: an application that the administrator defined
    uint8_t reserved1[4];
    char app_name[64]; // of a domain rule: the domain; empty = the slot is free
    char cat_name[32];
    uint8_t deny;
    uint8_t qos; // ARC_QOS_* below
    uint16_t rate_up;
    uint16_t rate_down; // the controller's unit, passed on as it is; 0 = none
    uint8_t reserved2[2];
};
static_assert(sizeof(arc_rule) == 112);
static_assert(offsetof(arc_rule, app_name) == 8);
static_assert(offsetof(arc_rule, cat_name) == 72);
static_assert(offsetof(arc_rule, deny) == 104);
static_assert(offsetof(arc_rule, rate_up) == 106);

// The parts of arc_rule::qos.
struct arc_qos_bits {
    uint8_t shift;
    uint8_t mask;

    constexpr uint8_t of(uint8_t qos) const { return static_cast<uint8_t>(qos >> shift & mask); }
    constexpr uint8_t in_place(unsigned value) const {
        return static_cast<uint8_t>((value & mask) << shift);
    }
};
inline constexpr arc_qos_bits ARC_QOS_MARKING = {0, 1};
inline constexpr arc_qos_bits ARC_QOS_CLASSIFICATION = {1, 1};
inline constexpr arc_qos_bits ARC_QOS_MARK_KIND = {2, 3};
inline constexpr arc_qos_bits ARC_QOS_MARK_TYPE = {4, 3};
inline constexpr arc_qos_bits ARC_QOS_CLASSIFY_TYPE = {6, 3};

// Their words; the order is the number. A kind of 3 has none. The traffic types are the access
// categories of IEEE 802.11e.
inline constexpr const char *ARC_MARK_KINDS[] = {"dot1p", "dscp", "both"};
inline constexpr const char *ARC_TRAFFIC_TYPES[] = {"Background", "BestEffort", "Video", "Voice"};

// What command 23 carries, 7,352 bytes:   1 attr1   3 attr3   4 attr4   5 log_enable   48 utp_id
//                                        52 rules   7220 name   7285 uuid
struct arc_policy_wire {
    uint8_t reserved0;
    uint8_t attr1;
    uint8_t reserved2;
    uint8_t attr3;
    uint8_t attr4;
    uint8_t log_enable; // nonzero: the flows of this policy go to the app-visibility log
    uint8_t reserved6[42];
    uint32_t utp_id; // the policy's id, which is the id of the UTP that it serves
    arc_rule rules[ARC_RULES_PER_POLICY];
    char name[65];
    char uuid[65];
    uint8_t padding[2];
};
static_assert(sizeof(arc_policy_wire) == 7352);
static_assert(offsetof(arc_policy_wire, utp_id) == 48);
static_assert(offsetof(arc_policy_wire, rules) == 52);
static_assert(offsetof(arc_policy_wire, name) == 7220);
static_assert(offsetof(arc_policy_wire, uuid) == 7285);

struct arc_rule_index;

struct arc_policy : arc_policy_wire {
    arc_policy *next;
    const arc_rule_index *index; // owned; of this policy's rules. None: they are walked
};

// What command 20 carries, 140 bytes:   0 id   8 name   73 uuid
struct utp_entry_wire {
    uint32_t id; // 1..64; 0 = a free entry
    uint32_t word4;
    char name[65];
    char uuid[65]; // of the policy to attach; empty = none
    uint8_t padding[2];
};
static_assert(sizeof(utp_entry_wire) == 140);
static_assert(offsetof(utp_entry_wire, name) == 8);
static_assert(offsetof(utp_entry_wire, uuid) == 73);

template <typename Policy>
struct utp_entry : utp_entry_wire {
    Policy *policy; // of the list of its kind, or none
};

// What command 26 carries, 72 bytes:   0 name   68 value
struct arc_policy_log_cfg {
    char name[68];  // of a policy
    uint32_t value; // its log_enable is to be the low byte
};
static_assert(sizeof(arc_policy_log_cfg) == 72);
static_assert(offsetof(arc_policy_log_cfg, value) == 68);
