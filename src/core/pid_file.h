// The pid file and the check that it serves: one daemon on a machine.
#pragma once

#include <sys/types.h>

inline constexpr char PID_FILE_PATH[] = "/var/run/jorn.pid";
inline constexpr int PID_FILE_ERR = -6;

// Writes the process id with mode 0644. Returns 0, or -6 when there is no path or the file can't be
// created.
int write_pid_file(const char *path);

// The number on the file's first line, read by the usual decimal rule; 0 when there is no path, no
// file or no number.
pid_t read_pid_file(const char *path);

// Whether the process that the pid file names is among the jorn processes that `ps` lists. (`ps`
// without options lists the processes of the caller's terminal.)
bool another_instance_runs();
