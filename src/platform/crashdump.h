// The crash-dump facility, exported by the platform's library libcrashdump: a record of how the
// process died. Plain C; psm.h says who supplies it. Called once, at start-up, and doesn't block.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Registers the process under its name.
void crashdump_init(const char *process_name);

// Makes a fatal signal write a backtrace to the file at `path` before it ends the process.
void crashdump_out_init(const char *path);

#ifdef __cplusplus
}
#endif
