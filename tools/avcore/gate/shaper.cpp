#include "avcore/gate/shaper.h"

#include "avcore/gate/gate_records.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <net/if.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace avcore {
namespace {

constexpr char ROOT[] = "a40c:"; // shaper::MAJOR
constexpr uint32_t NO_BUCKET = GATE_BUCKETS;
constexpr uint64_t SMALLEST_QUEUE = 15'140; // ten full frames
constexpr uint64_t QUEUES_A_SECOND = 10;

std::string class_name(uint32_t number) {
    char text[16];
    snprintf(text, sizeof text, "%s%x", ROOT, number);
    return text;
}

// Whether tc did it; what it complains about goes nowhere.
bool tc(std::vector<std::string> words) {
    words.insert(words.begin(), "tc");
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&quiet, fd, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const bool started =
        posix_spawnp(&child, "tc", &quiet, nullptr, arguments.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&quiet);
    int status = 0;
    return started && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

bool set_class(const std::string &interface, const std::string &name, uint64_t bytes_per_second) {
    return tc({"class", "replace", "dev", interface, "parent", ROOT, "classid", name, "htb", "rate",
               std::to_string(bytes_per_second) + "bps", "quantum", "1514"});
}

} // namespace

// `add` takes the place of the kernel's default alone. Where it fails the queues may be ours, of a
// run before.
bool shaper::make_root(const std::string &interface) {
    if (tc({"qdisc", "add", "dev", interface, "root", "handle", ROOT, "htb"}) ||
        set_class(interface, class_name(NO_BUCKET), 1'000'000))
        return true;
    say_("no queues at " + interface +
         ", for there is no HTB or the interface has another root qdisc: limits are kept by drops");
    return false;
}

uint32_t shaper::priority_of(uint32_t if_index, uint32_t number, uint64_t bytes_per_second) {
    char interface[IF_NAMESIZE];
    if (if_indextoname(if_index, interface) == nullptr)
        return 0;
    if (!roots_.contains(if_index))
        roots_[if_index] = make_root(interface);
    if (!roots_[if_index])
        return 0;
    uint64_t &rate = rates_[{if_index, number}];
    if (rate != bytes_per_second) {
        const std::string name = class_name(number);
        if (!set_class(interface, name, bytes_per_second))
            return 0;
        const uint64_t queue = std::max(SMALLEST_QUEUE, bytes_per_second / QUEUES_A_SECOND);
        if (rate == 0 && !tc({"qdisc", "replace", "dev", interface, "parent", name, "fq_codel"}))
            tc({"qdisc", "replace", "dev", interface, "parent", name, "bfifo", "limit",
                std::to_string(queue)});
        rate = bytes_per_second;
    }
    return MAJOR << 16 | number;
}

void shaper::remove_from(const std::vector<std::string> &interfaces) {
    for (const std::string &name : interfaces)
        remove_shaping(name);
    roots_.clear();
    rates_.clear();
}

void shaper::forget_gone() {
    char name[IF_NAMESIZE];
    std::erase_if(roots_, [&](const auto &each) { return !if_indextoname(each.first, name); });
    std::erase_if(rates_, [&](const auto &each) { return !roots_.contains(each.first.first); });
}

void remove_shaping(const std::string &interface) {
    tc({"qdisc", "del", "dev", interface, "root", "handle", ROOT});
}

} // namespace avcore
