// The Wi-Fi calling file, which keeps the carriers and the bindings over a restart.
//
//   [wificallingPolicy]
//   [policy]                                       for every carrier
//   PNAME;ALT_NAME;PRIORITY;NUM_EPDG;FQDN,ADDRESS,FQDN,ADDRESS;
//   [policy_end]
//
//   [wificallingPolicy end]
//
//   [intfcfg]
//   IFNAME;ENABLE;INTF_VALUE;NUM_PROFILES;PROFILE,PROFILE;
//   [intfcfg end]
//
// The dispatcher has it rewritten whole after every command that adds, changes or deletes a carrier
// or a binding; the flush of the carriers leaves it. Start-up reads it once, through the functions
// that serve the commands: the bindings are read behind the carriers, and one whose carriers are
// all unknown is dropped.
#pragma once

#include "wificalling/records/wificalling.h"

#include <cstddef>
#include <cstdio>
#include <string_view>

inline constexpr char WIFICALLING_FILE[] = "wificalling_config.txt";
inline constexpr size_t WIFICALLING_BLOCK_LIMIT = 9000; // a carrier's text stays below it

// Rewrites the file. Failures are reported in the log only.
void jorn_save_wificalling_configuration();

// Start-up: empties the carriers, restores the file and switches Wi-Fi calling on in the kernel for
// the interfaces whose binding says so. A file that can't be opened is removed and ends it there.
void jorn_load_wificalling_configurations();

// Whether the file can keep what commands 35 and 36 bring. What it can't is reported as theirs.
bool is_storable(const wificalling_policy_wire &asked);
bool is_storable(const wificalling_intf_wire &asked);

// The file's two sections. Both return 0, or -9 after a line in the log when a write failed.
int jorn_write_wificalling_policy_configuration(FILE *file);
int jorn_write_wificalling_interface_configuration(FILE *file);

// Appends one carrier's block to the `*length` characters in `text`. Returns 0, or -1 when that
// would reach `limit`; `text` then holds part of it.
int wificalling_policy_to_text(char *text, const wificalling_policy_wire *policy, size_t *length,
                               size_t limit);

// Sets what a carrier's line holds and leaves the rest of the record.
void jorn_parse_wificalling_policy_config(std::string_view line, wificalling_policy_wire *record);

// Reads a binding's line and takes it as command 36 does.
void jorn_parse_wificalling_intf_config(std::string_view line);
