// The section of the user-defined applications in the application-policy file. They count all
// together, with the section's end marker.
#pragma once

#include "core/files/section.h"
#include "userapps/records/apps.h"

#include <cstddef>
#include <cstdio>
#include <span>
#include <string_view>

inline constexpr size_t USERDEF_LINE_LIMIT = 2048; // a line with its line feed stays below it

struct pending_userdefs {
    userdef_table table;
    bool overflow;
};

// Replaces the table where the section ends.
extern const std::span<const section_row<pending_userdefs>> USERDEF_SECTION;

// Returns 0, or -9 after a line in the log when a write failed. A line that doesn't fit its limit
// is left out.
int jorn_write_userdef_configuration(FILE *file);

// Appends one line to the `*length` characters in `text`. Returns 0, or -1 when that would reach
// `capacity`; `text` then holds part of it.
int jorn_format_userdef_entry(char *text, const userdef_app *record, size_t *length,
                              size_t capacity);

// Sets what a line holds and leaves the rest of the record.
void jorn_restore_userdef_policy_entry(std::string_view line, userdef_app *record);
