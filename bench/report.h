// What the in-memory cases print: Google Benchmark's own lines, of several repetitions the median
// alone, then every median beside its goal.
#pragma once

#include <span>

// At most `factor` times the yardstick, another case or B (the bare capture loop's CPU time a
// packet), and `plus_b` times B more.
struct bench_goal {
    const char *name;
    const char *yardstick; // "B" or a case's name
    double factor;
    double plus_b = 0;
};

// Runs the registered benchmarks. `bare_ns` is B, 0 when it wasn't measured. Returns the program's
// exit status: a failure when a case gave itself up.
int run_benchmarks(std::span<const bench_goal> goals, double bare_ns);
