// The administrator's applications and the port-service list walked as they stand, with a line of
// the log for each step.
//
// While debugging is on, detection has its searches walked as well, and the log shows the walk.
// What names a packet is settled beforehand (settle.h), finds the same and says nothing.
#pragma once

#include "control/records/arc.h"
#include "packet/records/context.h"
#include "userapps/records/apps.h"

// Called before the search that decides. Nothing while debugging is off.
void trace_userdef_search(const pkt_ctx &pkt);
void trace_port_search(const pkt_ctx &pkt);

// What names the packet, or none.
const userdef_app *walk_userdef_apps(const pkt_ctx &pkt);
const port_app *walk_port_apps(const pkt_ctx &pkt);

// 1 when the packet fits the record's criteria, else 0. The record's destination is looked for on
// both sides of the packet, its source restricts nothing.
int jorn_is_pkt_match_userdef_app(const pkt_ctx *pkt, const userdef_app *record);

// 1 when the policy lists the record's application as "User Defined", else 0.
int __is_userdef_attached_to_arc(const arc_policy *policy, const userdef_app *record);

// 1 when the policy lists the entry's application as "User Defined", else 0.
int __is_userdef_port_attached_to_arc(const arc_policy *policy, const port_app *entry);
