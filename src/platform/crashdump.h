// The crash-dump facility: a record of how the process died.
#pragma once

extern "C" {

// Registers the process under its name.
void crashdump_init(const char *process_name);

// Makes a fatal signal write a backtrace to the file at `path` before it ends the process.
void crashdump_out_init(const char *path);
}
