// The application-policy file, which keeps the ARC policies and the user-defined applications over
// a restart, and the rest of the start-up configuration.
//
//   [appPolicy]
//   [policy]                                       for every policy
//   ATTR1;ATTR3;ATTR4;LOG_ENABLE;UTP_ID;
//   APP_ID,CAT_ID,NAME,CATEGORY,DENY,MARK,CLASSIFY,MARK_KIND,MARK_TYPE,CLASSIFY_TYPE,UP,DOWN;
//   [policy end]
//
//   [appPolicy end]
//   [userdef]
//   SRC_FAMILY;SRC_IP;DST_FAMILY;DST_IP;NETMASK;SRC_PORT;DST_PORT;PROTOCOL;APP_ID;CAT_ID;NAME;BITMAP;
//   [userdef end]
//
// The dispatcher has it rewritten whole after every command that changes what is in it. Start-up
// reads it once. The UTP tables are in no file: after a restart the ARC table holds what the
// policies build. A policy's name and uuid are not kept, and names are written as they are, so a
// separator inside one doesn't read back.
//
// The reader takes a file that was edited by hand or cut short: a policy counts with its end
// marker, the user-defined applications count all together with theirs.
#pragma once

#include "control/records/arc.h"
#include "userapps/records/apps.h"

#include <cstddef>
#include <cstdio>
#include <string_view>

inline constexpr char APPLICATION_POLICY_PATH[] = "/writable/jorn/jorn_config.txt";

inline constexpr int CONFIGURATION_ERR_WRITE = -9;
inline constexpr size_t ARC_BLOCK_LIMIT = 8096;    // a policy's text stays below it
inline constexpr size_t USERDEF_LINE_LIMIT = 2048; // and an application's line below this

// Rewrites the file. Failures are reported in the log only.
void jorn_save_configuration();

// The file's two sections. Both return 0, or -9 after a line in the log when a write failed. What
// doesn't fit its limit is left out.
int jorn_write_arc_policy_configuration(FILE *file);
int jorn_write_userdef_configuration(FILE *file);

// One policy's block, and one application's line, appended to the `*length` characters in `text`.
// Both return 0, or -1 when that would reach `capacity`; `text` then holds part of it.
int jorn_format_arc_policy(char *text, const arc_policy_wire *policy, size_t *length,
                           size_t capacity);
int jorn_format_userdef_entry(char *text, const userdef_app *record, size_t *length,
                              size_t capacity);

// Start-up: empties the UTP tables and the policies, restores the file, reads the port-service
// file, switches application visibility on and starts the DPI engine. A file that can't be opened
// is removed and ends the start-up configuration there, and so does an exit signal between two
// steps.
void jorn_load_configurations();

// Adds what the file holds to the policies and replaces the user-defined applications. `path` names
// the file in the log.
void restore_configuration(FILE *file, const char *path);

// Switches application visibility on for every wireless interface whose configuration asks for it,
// until an exit signal comes.
void enable_visibility();

// A policy's header line: clears the policy and sets its attributes. Fields that are missing are 0.
void __jorn_parse_policy_config_first(std::string_view line, arc_policy_wire *policy);

// A rule line: fills the policy's rule `*rule_count`, if there is such a rule, and counts the line.
void __jorn_parse_policy_config_rule(std::string_view line, arc_policy_wire *policy,
                                     unsigned *rule_count);

// A user-defined application's line: sets what the line holds and leaves the rest of the record.
void jorn_restore_userdef_policy_entry(std::string_view line, userdef_app *record);
