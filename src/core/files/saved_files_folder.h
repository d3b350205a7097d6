// Where the daemon keeps what outlives a restart, and its tools look for it. Chosen when all of
// them are built; no option changes it.
#pragma once

inline constexpr char SAVED_FILES_FOLDER[] = JORN_STATE_DIR;
