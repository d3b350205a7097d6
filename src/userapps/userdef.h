// User-defined applications: what the administrator calls traffic to a network, on a port, over a
// protocol.
//
// Command 6 replaces the whole table; start-up restores it from the application-policy file. The
// packet path asks for the first definition that a packet fits. A UTP with an ARC policy allows
// only the definitions that the policy lists as "User Defined": those of the source's UTP are tried
// first, in table order, then those of the destination's.
#pragma once

#include "control/records/arc.h"
#include "packet/records/context.h"
#include "userapps/records/apps.h"

// Command 6: a count (int32) and as many records of userdef_app. Returns what
// jorn_update_user_def_policy_cfg does.
int jorn_process_cmd_userdef_policy_cfg_req(const void *payload);

// Whether the `received` bytes of command 6's payload hold the records that its count promises, or
// the count is one that is refused anyway. Says in the log when they don't: completed with zeros
// they would be applications that fit every packet.
bool userdef_payload_complete(const void *payload, size_t received);

// Replaces the table by `count` records, which need no alignment, and has the platform forget its
// flows' policies. Returns 0, or -1 with nothing changed for a count outside 0 to 32 and for a name
// that the file can't keep.
int jorn_update_user_def_policy_cfg(const void *records, int32_t count);

// Works out which criteria a record gives.
void userdef_build_bitmap(userdef_app *record);

// Names the packet after the first definition that it fits. Returns 1 when there is one, else 0.
int jorn_detect_pkt_userdef_app(pkt_ctx *pkt);

// The definition that names a packet, or none, by the settled criteria.
const userdef_app *find_userdef_app(const pkt_ctx &pkt);
