// Files are opened here, those that the daemon reads and those that it writes.
//
// Whoever may write to a folder can put something else in a file's place. A FIFO would hold the one
// thread for good, a device that never ends its memory; so nothing is waited for, and what isn't a
// regular file, behind links, can't be opened.
#pragma once

#include <cstdio>
#include <string_view>

// An open file, or none with the reason in errno: EISDIR for a directory, ENXIO for what else isn't
// regular. What is written is created with mode 0666 (before the mask) or cut to nothing, and isn't
// buffered: stdio would hide a full disk until the file is closed.
FILE *open_to_read(const char *path);
FILE *open_to_write(const char *path);

// Writes all of the text to an unbuffered file. A signal in between doesn't count. Returns false,
// with the reason in errno, when some of it couldn't be written.
bool write_whole(FILE *file, std::string_view text);

// Whether something that isn't a regular file stands at the path: what another program, told to
// open it, might wait for.
bool is_no_regular_file(const char *path);
