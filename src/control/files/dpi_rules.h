// The DPI engine's rules: handed to the engine by its rule agent once, right after start-up has
// switched the engine on.
//
// The rule file is the first whose name contains "Wendle", in the order in which the directory
// lists them. Whether or not there is one, the version file gets the version of the firmware that
// last started the engine.
#pragma once

#include <cstddef>

inline constexpr char DPI_RULE_DIRECTORY[] = "/writable/fw/tdts_rule";
inline constexpr char DPI_VERSION_PATH[] = "/writable/fw/tdts_ver";
inline constexpr size_t DPI_COMMAND_SIZE = 128; // a longer command is cut

// Runs the rule agent and writes the version file. What becomes of either is not noticed; a name or
// a version that the shell wouldn't take literally, and anything but a regular file in the place of
// either file, is reported, and that command isn't run.
void jorn_load_dpi_rules();
