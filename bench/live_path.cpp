#include "live_path.h"

#include "flows.h"
#include "lab.h"
#include "platform/host/messages/av_messages.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <pcap/pcap.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint64_t WARM_UP = 20'000;
constexpr unsigned FLOWS = 64;
constexpr char DAEMON_LOG[] = "/run/bench_jorn.log";

int connect_to_sink() {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, LAB_SOCKET_PATH, sizeof LAB_SOCKET_PATH);
    constexpr int room = AV_SEND_BUFFER;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        lab_fail("the bare loop's connection");
    return fd;
}

void send_record(u_char *user, const pcap_pkthdr *, const u_char *) {
    static const uint8_t record[sizeof(av_verdict)] = {};
    int sink;
    memcpy(&sink, user, sizeof sink);
    [[maybe_unused]] const ssize_t sent = send(sink, record, sizeof record, MSG_NOSIGNAL);
}

[[noreturn]] void run_bare_loop() {
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    pcap_t *capture = pcap_open_live(LAB_CAPTURE_IFACE, 65535, 1, -1, errbuf);
    if (capture == nullptr || pcap_setnonblock(capture, 1, errbuf) == -1) {
        fprintf(stderr, "bench: bare loop: %s\n", errbuf);
        _exit(EXIT_FAILURE);
    }
    int sink = connect_to_sink();
    const int fd = pcap_fileno(capture);
    for (;;) {
        fd_set wanted;
        FD_ZERO(&wanted);
        FD_SET(fd, &wanted);
        timeval time_out = {5, 0};
        if (select(fd + 1, &wanted, nullptr, nullptr, &time_out) > 0)
            pcap_dispatch(capture, 1, send_record, reinterpret_cast<u_char *>(&sink));
    }
}

[[noreturn]] void run_daemon_binary(const std::string &binary) {
    setenv(AV_SOCKET_VARIABLE, LAB_SOCKET_PATH, 1);
    // Lines go to a file: one for each refused verdict would drown the figures.
    if (freopen(DAEMON_LOG, "w", stderr) == nullptr)
        _exit(EXIT_FAILURE);
    execl(binary.c_str(), "jorn", "-i", LAB_CAPTURE_IFACE, nullptr);
    perror(binary.c_str());
    _exit(EXIT_FAILURE);
}

void show_daemon_log() {
    FILE *log = fopen(DAEMON_LOG, "re");
    if (log == nullptr)
        return;
    char line[512];
    for (int n = 0; n < 20 && fgets(line, sizeof line, log) != nullptr; ++n)
        fputs(line, stderr);
    fclose(log);
}

live_figures measure(const live_traffic &traffic, const std::function<void()> &consumer) {
    const lab_cpus cpus = lab_choose_cpus();
    feeder far_side(traffic.options);
    const pid_t child = fork();
    if (child < 0)
        lab_fail("fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        lab_pin(cpus.consumer);
        consumer();
        _exit(EXIT_FAILURE);
    }
    cpu_set_t before;
    sched_getaffinity(0, sizeof before, &before);
    lab_pin(cpus.feeder);
    if (!far_side.wait_for_consumer(traffic.frames.front())) {
        fputs("bench: no verdict within ten seconds\n", stderr);
        show_daemon_log();
        kill(child, SIGKILL);
        exit(EXIT_FAILURE);
    }
    far_side.feed(traffic.frames, std::min(WARM_UP, traffic.count));
    lab_capture_drops(child); // start-up's and the warm-up's don't count

    const double cpu_before = lab_cpu_time_ns(child);
    const feed_result fed = far_side.feed(traffic.frames, traffic.count);
    const double cpu_used = lab_cpu_time_ns(child) - cpu_before;
    const long drops = lab_capture_drops(child);

    kill(child, SIGTERM); // a daemon that counts for scripts/build-pgo leaves its counts at its end
    waitpid(child, nullptr, 0);
    sched_setaffinity(0, sizeof before, &before);

    const auto answered = static_cast<double>(fed.answered);
    live_figures figures;
    figures.cpu_ns = cpu_used / answered;
    figures.per_second = answered / fed.seconds;
    figures.lost = fed.lost;
    figures.drops = drops;
    figures.questions = static_cast<double>(fed.questions) / answered;
    return figures;
}

double median(std::span<const live_figures> runs, double live_figures::*member) {
    std::vector<double> values;
    for (const live_figures &run : runs)
        values.push_back(run.*member);
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

live_figures measure_bare_loop(const live_traffic &traffic) {
    return measure(traffic, run_bare_loop);
}

live_figures measure_daemon(const live_traffic &traffic, const std::string &binary) {
    return measure(traffic, [&binary] { run_daemon_binary(binary); });
}

live_figures median_figures(std::span<const live_figures> runs) {
    live_figures figures;
    figures.cpu_ns = median(runs, &live_figures::cpu_ns);
    figures.per_second = median(runs, &live_figures::per_second);
    figures.questions = median(runs, &live_figures::questions);
    for (const live_figures &run : runs) {
        figures.lost += run.lost;
        figures.drops += run.drops;
    }
    return figures;
}

std::vector<octets> live_frames(const av_pkt_trailer &trailer) {
    return flow_frames(FLOWS, flow_frame, trailer);
}
