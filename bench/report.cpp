#include "report.h"

#include <cstdio>
#include <vector>

void goal_reporter::ReportRuns(const std::vector<Run> &runs) {
    std::vector<Run> shown;
    for (const Run &run : runs) {
        if (run.aggregate_name == "median")
            medians_ns_[run.run_name.function_name] = run.GetAdjustedCPUTime();
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
        printf(" (B = %.0f ns, B/25 = %.1f ns)\n", bare_ns_, bare_ns_ / 25);
    else
        printf(" (B was not measured: run as root for it)\n");
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
