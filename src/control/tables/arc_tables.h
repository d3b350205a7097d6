// The UTP tables and the list of ARC policies: which policy a user traffic profile has.
//
// Owns the tables of the state block and the policy records behind them. The commands that change
// them run between two packets; the packet path looks up and borrows. Every link of a UTP entry
// names a record of the list or nothing: whoever releases a policy empties the links first.
#pragma once

#include "control/records/arc.h"

#include <cstdint>

// The entry of a UTP id that is in use, or none. Finds ids 1 to 63; an entry stored under 64 is
// shown but never found.
template <typename Policy>
const utp_entry<Policy> *utp_lookup(const utp_entry<Policy> (&table)[UTP_ID_MAX], uint32_t id) {
    if (id < UTP_ID_MIN || id > UTP_ID_LOOKUP_MAX)
        return nullptr;
    const utp_entry<Policy> &entry = table[id - 1];
    return entry.id != 0 ? &entry : nullptr;
}

constexpr bool is_utp_id(uint32_t id) {
    return id >= UTP_ID_MIN && id <= UTP_ID_MAX;
}

// Command 20: adds or replaces one ARC UTP entry (utp_entry_wire). Returns 0, or -1 for an id
// outside 1 to 64.
int jorn_process_arc_config(const void *payload);

// Command 22: clears both UTP tables. Returns 0.
int jorn_process_utp_flush();

// Command 23: adds one ARC policy (arc_policy_wire) and builds the UTP entry of its id. Returns 0,
// or -1 with nothing changed when the list is full, which is reported, or memory ran out.
int __arc_policy_add_end(const void *payload);

// Points the ARC UTP entry of the policy's id at the policy; an id outside 1 to 64 has none.
void __arc_policy_build_arc_utp(arc_policy *policy);

// Command 24: releases every ARC policy and has the platform forget its flows' policies.
void jorn_process_arc_policy_flush();

// Command 8: releases every ARC policy and changes nothing else.
void jorn_process_cmd_policy_clean();

// Command 26: sets the flow-logging flag of the first policy with exactly this name to the low byte
// of `value`. `name` is the field of arc_policy_log_cfg.
void jorn_process_arc_policy_log_cfg(int fd, const char *name, uint32_t value);
