// Web policies, the interfaces that they are bound to, and the web UTPs that use them.
//
// Owns web_policy_list, web_intf_list and web_utp_table of the state block. Commands and start-up
// change them between two packets; the packet path looks up and borrows. Every link of a binding
// and of a web UTP entry names a policy of the list or nothing: a release empties the links first.
//
// A policy is never replaced: one more of the same uuid stands behind the first, which is found.
#pragma once

#include "webfilter/records/web_policy.h"

// Command 21: adds or replaces one web UTP entry (utp_entry_wire) and links it to the policy of its
// uuid. Returns 0, or -1 for an id outside 1 to 64.
int jorn_process_url_config(const void *payload);

// Command 28: adds one web policy (web_policy_wire). A policy with a web UTP id replaces that UTP's
// entry and the safe-search mappings of whoever uses the UTP. Returns 0, or -1 when there are too
// many policies, or memory ran out, and nothing was changed.
int __web_find_intf_and_build_utp_for_pcy(const void *payload);

// Command 29: releases every web policy. Bindings and UTP entries stay, without a policy. Returns
// 0.
int jorn_process_web_policy_flush();

// Command 30: binds an interface to the policy of a uuid, or unbinds it (web_intf_wire). Returns 0
// for the operations add and delete, whatever became of them, and -1 for the others.
int jorn_process_web_intf_config(const void *payload);
