// The files that keep the configuration over a restart: opened for a whole rewrite, opened for
// reading at start-up, and written so that a full disk is noticed where it is met.
//
// A rewrite deletes the old file before it creates the new one. Whoever is stopped in between
// leaves no file or a cut one, and the readers live with both.
#pragma once

#include "core/base/log.h"

#include <cstdio>
#include <string_view>

inline constexpr char SAVED_FILES_DIRECTORY[] = "/writable/jorn";

// Deletes the file if it exists, otherwise makes sure of the directory, and opens the file for
// writing. Returns none after a line in the log.
FILE *create_saved_file(const char *directory, const char *path, log_origin from);

bool saved_file_exists(const char *path);

// Opens a file that exists for reading. One that can't be opened is reported and removed, so that
// the next start begins clean; the result is none.
FILE *open_saved_file(const char *path, log_origin from);

// Writes a text and flushes it: stdio would otherwise hide a full disk until the file is closed.
// Returns false, with the reason in errno, when not all of it went out.
[[nodiscard]] bool write_flushed(FILE *file, std::string_view text);
