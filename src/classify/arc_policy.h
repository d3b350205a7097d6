// The ARC decision: which rule of the flow's user traffic profile fits, and what it says.
//
// Runs after detection has named the flow. The profile of the side that sent the frame is asked
// before the other one; within a policy the first rule that fits wins. Borrows from the UTP and
// ARC tables and changes nothing but the context.
#pragma once

#include "control/records/arc.h"
#include "packet/records/context.h"

// Fills arc_cfg, arc_rule, arc_match_src, arc_match_utp and arc_action.
void jorn_apply_arc_policy(pkt_ctx *ctx);

// The first rule of the policy that fits the context's ids or name, or none.
const arc_rule *__jorn_policy_match(const pkt_ctx *ctx, const arc_policy *policy);

// Nonzero when the rule's domain occurs in the flow's name, letters A to Z compared without regard
// to case. A name below 60 characters counts as if ".com" followed it, so that a rule for a
// domain of one word and ".com" fits a flow that is named by the word alone.
int __jorn_domain_match(const char *flow_name, const char *rule_domain);
