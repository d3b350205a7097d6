#include "report.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

class goal_reporter : public benchmark::ConsoleReporter {
public:
    goal_reporter(std::span<const bench_goal> goals, double bare_ns)
        : ConsoleReporter(OO_Tabular), goals_(goals), bare_ns_(bare_ns) {}

    void ReportRuns(const std::vector<Run> &runs) override;
    void Finalize() override;
    bool failed() const { return failed_; }

private:
    double yardstick_ns(const bench_goal &goal) const;

    std::span<const bench_goal> goals_;
    double bare_ns_;
    std::map<std::string, double> medians_ns_;
    bool failed_ = false;
};

void goal_reporter::ReportRuns(const std::vector<Run> &runs) {
    std::vector<Run> shown;
    for (const Run &run : runs) {
        failed_ |= run.error_occurred;
        if (run.aggregate_name == "median")
            medians_ns_[run.run_name.str()] = run.GetAdjustedCPUTime();
        if (run.run_type != Run::RT_Aggregate || run.aggregate_name == "median")
            shown.push_back(run);
    }
    ConsoleReporter::ReportRuns(shown);
}

double goal_reporter::yardstick_ns(const bench_goal &goal) const {
    const std::string name = goal.yardstick;
    if (name == "B")
        return bare_ns_;
    const auto found = medians_ns_.find(name);
    return found != medians_ns_.end() ? found->second : 0;
}

void goal_reporter::Finalize() {
    printf("\nGoals");
    if (bare_ns_ > 0)
        printf(" (B = %.0f ns)\n", bare_ns_);
    else
        printf(" (B was not measured)\n");
    for (const bench_goal &goal : goals_) {
        const auto found = medians_ns_.find(goal.name);
        const double yardstick = yardstick_ns(goal);
        if (found == medians_ns_.end() || yardstick <= 0 || (goal.plus_b > 0 && bare_ns_ <= 0))
            continue;
        const double limit = yardstick * goal.factor + bare_ns_ * goal.plus_b;
        printf("  %-22s %8.1f ns  at most %8.1f (%.3f x %s", goal.name, found->second, limit,
               goal.factor, goal.yardstick);
        if (goal.plus_b > 0)
            printf(" + %.0f x B", goal.plus_b);
        printf("): %s\n", found->second <= limit ? "met" : "MISSED");
    }
}

} // namespace

int run_benchmarks(std::span<const bench_goal> goals, double bare_ns) {
    goal_reporter reporter(goals, bare_ns);
    const size_t run = benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return run == 0 || reporter.failed() ? EXIT_FAILURE : EXIT_SUCCESS;
}
