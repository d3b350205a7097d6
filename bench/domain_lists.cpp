// domain_lists: what a list of web categories costs avcore: reading it, the memory that it keeps
// and takes at most meanwhile, and a look-up; beside the same names in a std::unordered_map.
//
//   domain_lists [--names N]       by default 1,000,000
//
// The list is a hosts file of generated names. Each of the two sides reads it five times, each time
// in a process of its own, and is asked for a hundred thousand domains with two labels above a
// listed name, and for as many that aren't listed. Medians of CPU time.
#include "avcore/web/categories.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <memory>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace {

constexpr size_t NAMES_BY_DEFAULT = 1'000'000;
constexpr size_t QUESTIONS = 100'000;
constexpr size_t RUNS = 5;
constexpr double MIB = 1024.0 * 1024.0;

struct figures {
    double read_ms;
    double kept_mib;
    double peak_mib; // both above what the process had
    double listed_ns;
    double unlisted_ns;
};

using look_up = std::function<bool(const std::string &)>;
// Reads the list and returns what answers.
using reader = std::function<look_up(const char *path)>;

double cpu_ms() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double resident_mib() {
    long pages = 0;
    std::ifstream("/proc/self/statm").ignore(20, ' ') >> pages;
    return static_cast<double>(pages * sysconf(_SC_PAGESIZE)) / MIB;
}

double peak_mib() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024;
}

std::string random_label(std::mt19937 &random) {
    std::string label;
    for (size_t left = 4 + random() % 9; left > 0; --left)
        label += "abcdefghijklmnopqrstuvwxyz0123456789-"[random() % 36];
    return label;
}

// Every other one has a label before the registered name, as in the lists that are around.
std::vector<std::string> make_names(size_t count) {
    constexpr const char *ENDS[] = {".com", ".net", ".org", ".info", ".co.uk", ".example"};
    std::mt19937 random(1); // the same list in every run
    std::vector<std::string> names;
    for (size_t i = 0; i < count; ++i)
        names.push_back((i % 2 == 0 ? "" : random_label(random) + '.') + random_label(random) +
                        ENDS[random() % std::size(ENDS)]);
    return names;
}

look_up read_with_avcore(const char *path) {
    auto list = std::make_shared<avcore::category_list>(
        avcore::category_list::read({std::string(path) + "=69"}));
    return [list](const std::string &domain) { return list->answer(domain).category_count > 0; };
}

look_up read_with_map(const char *path) {
    auto names = std::make_shared<std::unordered_map<std::string, uint16_t>>();
    std::ifstream in(path);
    for (std::string address, name; in >> address >> name;)
        names->emplace(name, 69);
    return [names](std::string domain) {
        for (size_t dot = 0; dot != std::string::npos; dot = domain.find('.')) {
            domain.erase(0, dot == 0 ? 0 : dot + 1);
            if (names->contains(domain))
                return true;
            if (dot == 0 && domain.find('.') == std::string::npos)
                break;
        }
        return false;
    };
}

double ns_a_question(const look_up &find, const std::vector<std::string> &asked, bool expected) {
    const double before = cpu_ms();
    size_t found = 0;
    for (const std::string &domain : asked)
        found += find(domain);
    if (found != (expected ? asked.size() : 0)) {
        fprintf(stderr, "domain_lists: %zu of %zu were found\n", found, asked.size());
        _exit(EXIT_FAILURE);
    }
    return (cpu_ms() - before) * 1e6 / static_cast<double>(asked.size());
}

figures measure(const reader &read, const char *path, const std::vector<std::string> &listed,
                const std::vector<std::string> &unlisted) {
    const double resident = resident_mib();
    const double peak = peak_mib();
    const double before = cpu_ms();
    const look_up find = read(path);
    const double read_ms = cpu_ms() - before;
    return {read_ms, resident_mib() - resident, peak_mib() - peak,
            ns_a_question(find, listed, true), ns_a_question(find, unlisted, false)};
}

// In a process of its own, whose memory nobody used before.
figures measure_apart(const std::function<figures()> &measured) {
    int ends[2];
    figures result = {};
    if (pipe(ends) != 0)
        exit(EXIT_FAILURE);
    const pid_t child = fork();
    if (child == 0) {
        const figures own = measured();
        _exit(write(ends[1], &own, sizeof own) == ssize_t{sizeof own} ? EXIT_SUCCESS
                                                                      : EXIT_FAILURE);
    }
    close(ends[1]);
    const ssize_t got = read(ends[0], &result, sizeof result);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (got != ssize_t{sizeof result} || status != 0)
        exit(EXIT_FAILURE);
    return result;
}

double median(std::vector<figures> runs, double figures::*figure) {
    std::sort(runs.begin(), runs.end(),
              [figure](const figures &a, const figures &b) { return a.*figure < b.*figure; });
    return runs[runs.size() / 2].*figure;
}

// 0 for a command line that isn't understood.
size_t names_asked_for(int argc, char *argv[]) {
    if (argc == 3 && std::string(argv[1]) == "--names")
        return strtoul(argv[2], nullptr, 10);
    return argc == 1 ? NAMES_BY_DEFAULT : 0;
}

} // namespace

int main(int argc, char *argv[]) {
    const size_t count = names_asked_for(argc, argv);
    if (count == 0) {
        fputs("usage: domain_lists [--names N], N at least 1\n", stderr);
        return EXIT_FAILURE;
    }
    char path[] = "/tmp/domain_lists.XXXXXX";
    const int file = mkstemp(path);
    if (file < 0) {
        perror("domain_lists: no file in /tmp");
        return EXIT_FAILURE;
    }
    close(file);
    std::vector<std::string> listed;
    std::vector<std::string> unlisted;
    {
        const std::vector<std::string> names = make_names(count);
        std::ofstream out(path);
        for (const std::string &name : names)
            out << "0.0.0.0 " << name << '\n';
        for (size_t i = 0; i < QUESTIONS; ++i) {
            listed.push_back("www.cdn." + names[i * 7919 % names.size()]);
            unlisted.push_back("www.cdn." + names[i * 7919 % names.size()] + ".invalid");
        }
    }
    malloc_trim(0); // or the readers would fill what the names left, and seem to need less
    printf("%zu names\n%-20s %10s %10s %10s %12s %12s\n", count, "", "read, ms", "kept, MiB",
           "peak, MiB", "listed, ns", "others, ns");
    const struct {
        const char *name;
        reader read;
    } sides[] = {{"avcore", read_with_avcore}, {"std::unordered_map", read_with_map}};
    for (const auto &side : sides) {
        std::vector<figures> runs;
        for (size_t run = 0; run < RUNS; ++run)
            runs.push_back(
                measure_apart([&] { return measure(side.read, path, listed, unlisted); }));
        printf("%-20s %10.0f %10.1f %10.1f %12.0f %12.0f\n", side.name,
               median(runs, &figures::read_ms), median(runs, &figures::kept_mib),
               median(runs, &figures::peak_mib), median(runs, &figures::listed_ns),
               median(runs, &figures::unlisted_ns));
    }
    unlink(path);
    return EXIT_SUCCESS;
}
