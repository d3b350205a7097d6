// The place where the live path is measured: a veth pair inside scripts/private, so that nothing is
// left on the machine and a daemon that runs elsewhere isn't met.
#pragma once

#include <sys/types.h>

inline constexpr char LAB_FEEDER_IFACE[] = "avf0";  // frames are written here
inline constexpr char LAB_CAPTURE_IFACE[] = "avc0"; // and captured here
inline constexpr char LAB_SOCKET_PATH[] = "/run/bench_av.sock";

// CPUs for the two sides; the same one on a machine that has no second.
struct lab_cpus {
    int feeder;
    int consumer;
    int count;
};

// Whether this process runs inside scripts/private.
bool lab_is_private();

// Makes the pair, and raises the process's priority, so that whatever else runs on the machine
// interrupts less. Ends the program with a message when that fails.
void lab_enter();

// The first two CPUs on which this process may run.
lab_cpus lab_choose_cpus();
void lab_pin(int cpu);

// CPU time, user and system, that a process has used so far, in nanoseconds.
double lab_cpu_time_ns(pid_t pid);

// Frames that the kernel dropped for want of room in the capture ring of process `pid`, since this
// was last asked: what libpcap's own drop counter adds up. -1 when it can't be read.
long lab_capture_drops(pid_t pid);

// Ends the program with a message about errno.
[[noreturn]] void lab_fail(const char *what);
