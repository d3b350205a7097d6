// The web-filter file, which keeps web policies and bindings over a restart.
//
//   [webPolicy]
//   [policy]                                       for every policy
//   NAME;UUID;FILTER_TYPE;COUNT;CATEGORY,...;COUNT;WHITE,...;COUNT;BLACK,...;FLAG;VIP;FLAG;VIP;FLAG;VIP;
//   [policy_end]
//
//   [webPolicy end]
//   [intfcfg]
//   IFNAME;ENABLE;INTF_VALUE;OP;POLICY_UUID;       for every binding
//   [intfcfg end]
//
// The dispatcher has it rewritten whole after every command that adds a policy or changes a
// binding. Start-up reads it once, before the other files, and does what the commands would have
// done. Web UTP entries are in no file, nor is the UTP of a policy: the controller sends them
// again.
#pragma once

#include "webfilter/records/web.h"

#include <cstddef>
#include <cstdio>

inline constexpr char WEB_FILTER_FILE[] = "web_filter_config.txt";
inline constexpr size_t WEB_BLOCK_LIMIT = 9000; // a policy's text stays below it

// Rewrites the file. Failures are reported in the log only.
void jorn_save_web_configuration();

// Start-up: empties the policies, restores the file and switches URL filtering on for the
// interfaces of enabled bindings. A file that can't be opened is removed, and no interface is
// switched on.
void jorn_load_web_configurations();

// The file's two sections. Both return 0, or -9 after a line in the log when a write failed. A
// policy that doesn't fit its limit is left out.
int jorn_write_web_filtering_policy_configuration(FILE *file);
int jorn_write_web_filtering_interface_configuration(FILE *file);

// Appends one policy's block to the `*length` characters in `text`. Returns 0, or -1 when that
// would reach `capacity`; `text` then holds part of it.
int jorn_format_web_policy(char *text, const web_policy_wire *policy, size_t *length,
                           size_t capacity);

// Whether the file can hold what a command brings: a refusal is in the log. A binding that is only
// to be deleted isn't kept.
bool is_storable(const web_policy_wire &asked);
bool is_storable(const web_intf_wire &asked);
