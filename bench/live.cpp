// live: the daemon on the live path beside the bare loop, in one run.
//
//   scripts/private live [--runs N] [--packets N] [JORN]
//
// JORN is the daemon's binary, by default the one beside this program. Both consumers run in turn,
// so that a busy machine disturbs both; the figures are medians. CPU time is the consumer's own:
// what the feeder's side costs runs on another CPU.
#include "core/text/text.h"
#include "flows.h"
#include "lab.h"
#include "live_path.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <getopt.h>

namespace {

constexpr double GOAL_RATIO = 1.2;
constexpr double GOAL_OF_NAMED = 1.5;

struct live_options {
    unsigned runs = 5;
    uint64_t packets = 200'000;
    std::string binary;
};

struct scenario {
    const char *name;
    enum { beside_bare_loop, beside_named, none } goal;
    unsigned packets_divisor; // where every packet waits for the feeder's side
    feeder_options options;
    av_pkt_trailer (*trailer)();
};

av_pkt_trailer identified_trailer() {
    av_pkt_trailer trailer = plain_trailer();
    trailer.filter_type = AV_FILTER_DPI;
    trailer.dpi_status = AV_DPI_IDENTIFIED;
    trailer.dpi_app_id = 124;
    trailer.dpi_cat_id = 7;
    copy_text(trailer.dpi_app_name, "YouTube");
    return trailer;
}

constexpr scenario SCENARIOS[] = {
    {"named by the daemon's own cache",
     scenario::beside_bare_loop,
     1,
     {.names_known = true},
     plain_trailer},
    {"named by the DPI engine",
     scenario::beside_bare_loop,
     1,
     {.engine_present = true},
     identified_trailer},
    {"unnamed", scenario::beside_named, 1, {.page_shared = true}, plain_trailer},
    {"unnamed, the platform asked each time", scenario::none, 10, {}, plain_trailer},
};

live_options read_options(int argc, char *argv[]) {
    live_options options;
    options.binary = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "jorn";
    const option names[] = {{"runs", required_argument, nullptr, 'r'},
                            {"packets", required_argument, nullptr, 'p'},
                            {}};
    for (int found; (found = getopt_long(argc, argv, "", names, nullptr)) != -1;) {
        if (found == 'r') {
            options.runs = static_cast<unsigned>(atoi(optarg));
        } else if (found == 'p') {
            options.packets = strtoull(optarg, nullptr, 10);
        } else {
            exit(EXIT_FAILURE);
        }
    }
    if (optind < argc)
        options.binary = argv[optind];
    if (options.runs == 0 || options.packets == 0) {
        fputs("usage: live [--runs N] [--packets N] [JORN]\n", stderr);
        exit(EXIT_FAILURE);
    }
    options.binary = std::filesystem::absolute(options.binary);
    return options;
}

void print_row(const char *consumer, const live_figures &figures) {
    printf("  %-9s %8.0f ns CPU a packet  %8.0f packets/s  %llu without a verdict, %ld dropped",
           consumer, figures.cpu_ns, figures.per_second,
           static_cast<unsigned long long>(figures.lost), figures.drops);
    if (figures.questions > 0.005)
        printf("  %.2f questions a packet", figures.questions);
    putchar('\n');
}

struct costs {
    double bare_ns;
    double daemon_ns;
};

void print_goal(const scenario &wanted, const costs &cost, double named_ns) {
    printf("  ratio     %8.2f", cost.daemon_ns / cost.bare_ns);
    const bool beside_named = wanted.goal == scenario::beside_named;
    const double ratio = cost.daemon_ns / (beside_named ? named_ns : cost.bare_ns);
    const double goal = beside_named ? GOAL_OF_NAMED : GOAL_RATIO;
    if (beside_named)
        printf("  %.2f times a named one,", ratio);
    if (wanted.goal != scenario::none)
        printf("  goal at most %.1f: %s", goal, ratio <= goal ? "met" : "MISSED");
    printf("\n\n");
    fflush(stdout);
}

// `named_ns` is what the daemon took for a packet that its own cache names.
costs run_scenario(const scenario &wanted, const live_options &options, double named_ns) {
    const live_traffic traffic = {live_frames(wanted.trailer()), wanted.options,
                                  options.packets / wanted.packets_divisor};
    std::vector<live_figures> bare_runs;
    std::vector<live_figures> daemon_runs;
    for (unsigned run = 0; run < options.runs; ++run) {
        bare_runs.push_back(measure_bare_loop(traffic));
        daemon_runs.push_back(measure_daemon(traffic, options.binary));
    }
    const live_figures bare = median_figures(bare_runs);
    const live_figures daemon = median_figures(daemon_runs);
    const costs cost = {bare.cpu_ns, daemon.cpu_ns};

    printf("%s\n", wanted.name);
    print_row("bare loop", bare);
    print_row("daemon", daemon);
    print_goal(wanted, cost, named_ns);
    return cost;
}

} // namespace

int main(int argc, char *argv[]) {
    const live_options options = read_options(argc, argv);
    lab_enter();
    printf("%llu packets a run, %u outstanding, medians of %u runs, %d CPUs\n\n",
           static_cast<unsigned long long>(options.packets), feeder_options().window, options.runs,
           lab_choose_cpus().count);
    fflush(stdout); // the children inherit what isn't written yet
    double bare_ns = 0;
    double named_ns = 0;
    for (const scenario &wanted : SCENARIOS) {
        const costs cost = run_scenario(wanted, options, named_ns);
        bare_ns = std::max(bare_ns, cost.bare_ns);
        if (&wanted == SCENARIOS)
            named_ns = cost.daemon_ns;
    }
    printf("B = %.0f ns\n", bare_ns);
    return EXIT_SUCCESS;
}
