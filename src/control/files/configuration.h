// The application-policy file, which keeps the ARC policies and the user-defined applications over
// a restart, and the rest of the start-up configuration.
//
// The file holds the section of the ARC policies, then that of the user-defined applications. The
// dispatcher has it rewritten whole after every command that changes what is in it. Start-up reads
// it once. The UTP tables are in no file: after a restart the ARC table holds what the policies
// build.
//
// People edit the file by hand, and it may have been cut short: each section says what still
// counts then.
#pragma once

inline constexpr char APPLICATION_POLICY_FILE[] = "jorn_config.txt";

// Rewrites the file. Failures are reported in the log only.
void jorn_save_configuration();

// Start-up: empties the UTP tables and the policies, restores the file, reads the port-service
// file, switches application visibility on and starts the DPI engine. A file that can't be opened
// is removed and ends the start-up configuration there, and so does an exit signal between two
// steps.
void jorn_load_configurations();

// Adds what the file holds to the policies and replaces the user-defined applications. Returns
// false when there is a file that can't be opened.
bool restore_configuration();

// Switches application visibility on for every wireless interface whose configuration asks for it,
// until an exit signal comes.
void enable_visibility();
