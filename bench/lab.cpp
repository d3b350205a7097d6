#include "lab.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

void run(const std::string &command) {
    if (system(command.c_str()) != 0) {
        fprintf(stderr, "bench: failed: %s\n", command.c_str());
        exit(EXIT_FAILURE);
    }
}

void silence_ipv6(const char *iface) {
    const std::string path = std::string("/proc/sys/net/ipv6/conf/") + iface + "/disable_ipv6";
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return; // a kernel without IPv6
    if (write(fd, "1", 1) != 1)
        lab_fail(path.c_str());
    close(fd);
}

// A copy of descriptor `number` of process `pid`, or -1.
int borrow_descriptor(pid_t pid, int number) {
    const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (process < 0)
        return -1;
    const int copy = static_cast<int>(syscall(SYS_pidfd_getfd, process, number, 0));
    close(process);
    return copy;
}

bool is_packet_socket(int fd) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_PACKET;
}

std::vector<int> descriptors_of(pid_t pid) {
    std::vector<int> numbers;
    const std::string path = "/proc/" + std::to_string(pid) + "/fd";
    DIR *directory = opendir(path.c_str());
    if (directory == nullptr)
        return numbers;
    while (const dirent *entry = readdir(directory)) {
        if (entry->d_name[0] != '.')
            numbers.push_back(atoi(entry->d_name));
    }
    closedir(directory);
    return numbers;
}

} // namespace

void lab_fail(const char *what) {
    perror(what);
    exit(EXIT_FAILURE);
}

// Root of a network that has no interface but the loop.
bool lab_is_private() {
    bool alone = geteuid() == 0;
    struct if_nameindex *interfaces = if_nameindex();
    for (auto *found = interfaces; found != nullptr && found->if_index != 0; ++found)
        alone = alone && strcmp(found->if_name, "lo") == 0;
    if_freenameindex(interfaces);
    return alone;
}

void lab_enter() {
    if (!lab_is_private()) {
        fputs("bench: the live path runs inside scripts/private\n", stderr);
        exit(EXIT_FAILURE);
    }
    const std::string feeder = LAB_FEEDER_IFACE;
    const std::string capture = LAB_CAPTURE_IFACE;
    run("ip link add " + feeder + " mtu 65535 type veth peer name " + capture + " mtu 65535");
    for (const std::string &iface : {feeder, capture}) {
        silence_ipv6(iface.c_str());
        run("ip link set " + iface + " arp off up");
    }
    setpriority(PRIO_PROCESS, 0, -20); // the figures are valid without it
}

lab_cpus lab_choose_cpus() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        lab_fail("sched_getaffinity");
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<size_t>(cpu), &allowed))
            cpus.push_back(cpu);
    }
    return {cpus.front(), cpus[cpus.size() > 1 ? 1 : 0], static_cast<int>(cpus.size())};
}

void lab_pin(int cpu) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(cpu), &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0)
        lab_fail("sched_setaffinity");
}

double lab_cpu_time_ns(pid_t pid) {
    clockid_t clock = {};
    timespec used = {};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0)
        lab_fail("the process's CPU clock");
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

long lab_capture_drops(pid_t pid) {
    long drops = -1;
    for (const int number : descriptors_of(pid)) {
        const int fd = borrow_descriptor(pid, number);
        if (fd < 0)
            continue;
        tpacket_stats_v3 stats = {};
        socklen_t size = sizeof stats;
        if (is_packet_socket(fd) &&
            getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, &size) == 0)
            drops = static_cast<long>(stats.tp_drops);
        close(fd);
    }
    return drops;
}
