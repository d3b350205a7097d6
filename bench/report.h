// What the in-memory cases print: Google Benchmark's own lines, of several repetitions the median
// alone, then every median beside its goal.
#pragma once

#include <benchmark/benchmark.h>
#include <map>
#include <span>
#include <string>

// At most `factor` times the yardstick, another case or B (the bare capture loop's CPU time a
// packet), and `plus_b` times B more.
struct bench_goal {
    const char *name;
    const char *yardstick; // "B" or a case's name
    double factor;
    double plus_b = 0;
};

class goal_reporter : public benchmark::ConsoleReporter {
public:
    // `bare_ns` is B, 0 when it wasn't measured.
    goal_reporter(std::span<const bench_goal> goals, double bare_ns)
        : ConsoleReporter(OO_Tabular), goals_(goals), bare_ns_(bare_ns) {}

    void ReportRuns(const std::vector<Run> &runs) override;
    void Finalize() override;

private:
    double yardstick_ns(const bench_goal &goal) const;

    std::span<const bench_goal> goals_;
    double bare_ns_;
    std::map<std::string, double> medians_ns_;
};
