// compare: one capture through the daemon's way of a packet in memory and through ndpiReader, a
// general DPI tool, in CPU nanoseconds a packet.
//
//   compare [--generate N] [--runs N] [FILE ...]
//
// The capture is what the files hold (Ethernet, pcap or pcapng) followed by N generated packets, by
// default 60,000 without a file and none with one.
//
// The daemon's side: decode to verdict of every frame, each with a trailer that asks for no
// inspection, the DNS cache empty at the start of every pass, the platform answering at once with
// the names that the capture's DNS answers give. ndpiReader's side: user and system time of
// "-q -l 11" less that of "-q -l 1", divided by ten, which leaves out its start. It reads the file
// in every pass; what reading alone costs is shown beside it.
#include "avcore/frames/frame.h"
#include "avcore/names/dns_answer.h"
#include "core/base/hash_table.h"
#include "core/dns/dns_cache.h"
#include "core/state/state.h"
#include "flows.h"
#include "lab.h"
#include "support/fake_platform.h"
#include "traffic.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <getopt.h>
#include <map>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr double GOAL_SHARE = 1.0 / 5;
constexpr size_t GENERATED_BY_DEFAULT = 60'000;
constexpr int PASSES = 10;
constexpr int SKIPPED = 77; // the exit status for want of something that isn't ours

struct compare_options {
    size_t generate = 0;
    unsigned runs = 5;
    std::vector<const char *> files;
};

compare_options read_options(int argc, char *argv[]) {
    compare_options options;
    bool generate_given = false;
    const option names[] = {{"generate", required_argument, nullptr, 'g'},
                            {"runs", required_argument, nullptr, 'r'},
                            {}};
    for (int found; (found = getopt_long(argc, argv, "", names, nullptr)) != -1;) {
        if (found == 'g') {
            options.generate = strtoul(optarg, nullptr, 10);
            generate_given = true;
        } else if (found == 'r') {
            options.runs = std::max(1u, static_cast<unsigned>(atoi(optarg)));
        } else {
            fputs("usage: compare [--generate N] [--runs N] [FILE ...]\n", stderr);
            exit(EXIT_FAILURE);
        }
    }
    options.files.assign(argv + optind, argv + argc);
    if (!generate_given && options.files.empty())
        options.generate = GENERATED_BY_DEFAULT;
    return options;
}

void read_file(const char *path, std::vector<octets> &frames) {
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    pcap_t *file = pcap_open_offline(path, errbuf);
    if (file == nullptr || pcap_datalink(file) != DLT_EN10MB) {
        fprintf(stderr, "compare: %s: %s\n", path, file == nullptr ? errbuf : "not Ethernet");
        exit(EXIT_FAILURE);
    }
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    while (pcap_next_ex(file, &header, &bytes) == 1)
        frames.emplace_back(bytes, bytes + header->caplen);
    pcap_close(file);
}

// A packet a millisecond from a fixed start, so that the file is the same every time.
void write_capture(const std::string &path, const std::vector<octets> &frames) {
    pcap_t *format = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t *file = pcap_dump_open(format, path.c_str());
    if (file == nullptr) {
        fprintf(stderr, "compare: %s\n", pcap_geterr(format));
        exit(EXIT_FAILURE);
    }
    for (size_t n = 0; n < frames.size(); ++n) {
        pcap_pkthdr header = capture_header(frames[n]);
        header.ts.tv_sec = static_cast<time_t>(1736157600 + n / 1000);
        header.ts.tv_usec = static_cast<suseconds_t>(n % 1000 * 1000);
        pcap_dump(reinterpret_cast<u_char *>(file), &header, frames[n].data());
    }
    pcap_dump_close(file);
    pcap_close(format);
}

double own_cpu_ns() {
    timespec used = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

double median_of(unsigned runs, const std::function<double()> &measure) {
    std::vector<double> values;
    for (unsigned run = 0; run < runs; ++run)
        values.push_back(measure());
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The names that the capture's DNS answers give: what a platform that watched it would answer.
std::map<avcore::ip_address, std::string> names_of_capture;

void learn_names(const octets &frame) {
    constexpr size_t UDP_HEADER_SIZE = 8;
    const std::span<const uint8_t> packet = avcore::ipv4_packet({frame.data(), frame.size()});
    const std::span<const uint8_t> message = avcore::udp_payload(packet);
    if (message.empty() || be16(53) != octets(message.data() - UDP_HEADER_SIZE, 2))
        return;
    const avcore::dns_answer answer = avcore::read_dns_answer(message);
    for (const avcore::dns_finding &finding : answer.findings)
        names_of_capture[finding.address] = answer.name;
}

// A daemon's standard output is /dev/null. The hash table writes a line there for each redirect to
// an address that has a name already.
class silent_stdout {
public:
    silent_stdout() : kept_(dup(STDOUT_FILENO)) {
        fflush(stdout);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~silent_stdout() {
        fflush(stdout);
        dup2(kept_, STDOUT_FILENO);
        close(kept_);
    }
    silent_stdout(const silent_stdout &) = delete;
    silent_stdout &operator=(const silent_stdout &) = delete;

private:
    int kept_;
};

fake_dns_answer name_of_address(uint32_t address_be) {
    const auto found = names_of_capture.find(address_be);
    return found != names_of_capture.end() ? fake_dns_answer{found->second}
                                           : fake_dns_answer{"", 0, {0, 0, 0}};
}

// One pass of all frames through the daemon's packet path.
double daemon_pass_ns(const std::vector<octets> &captured) {
    const silent_stdout silence;
    const double start = own_cpu_ns();
    hash_table_clear(jorn_state.dns_cache);
    for (const octets &frame : captured)
        judge(frame);
    return own_cpu_ns() - start;
}

double reading_pass_ns(const std::string &path) {
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    const double start = own_cpu_ns();
    pcap_t *file = pcap_open_offline(path.c_str(), errbuf);
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    while (pcap_next_ex(file, &header, &bytes) == 1)
        ;
    pcap_close(file);
    return own_cpu_ns() - start;
}

double reader_ns(const std::string &path, const char *loops) {
    const pid_t child = fork();
    if (child < 0)
        lab_fail("fork");
    if (child == 0) {
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execlp("ndpiReader", "ndpiReader", "-q", "-l", loops, "-i", path.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    rusage used = {};
    if (wait4(child, &status, 0, &used) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) == 127) {
        fputs("compare: ndpiReader didn't run (Debian's package libndpi-bin)\n", stderr);
        exit(SKIPPED);
    }
    const auto ns = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
    };
    return ns(used.ru_utime) + ns(used.ru_stime);
}

void print_mix(const std::vector<octets> &frames) {
    size_t bytes = 0;
    size_t tcp = 0;
    size_t udp = 0;
    for (const octets &frame : frames) {
        const octets captured = with_trailer(frame);
        const uint8_t protocol = avcore::decode_frame({captured.data(), captured.size()}).ip_proto;
        bytes += frame.size();
        tcp += protocol == IPPROTO_TCP ? 1 : 0;
        udp += protocol == IPPROTO_UDP ? 1 : 0;
    }
    const auto percent = [&](size_t part) { return 100 * part / frames.size(); };
    printf("%zu packets, %zu bytes on average, %zu%% TCP, %zu%% UDP; %zu addresses named by DNS\n",
           frames.size(), bytes / frames.size(), percent(tcp), percent(udp),
           names_of_capture.size());
}

} // namespace

int main(int argc, char *argv[]) {
    const compare_options options = read_options(argc, argv);
    std::vector<octets> frames;
    for (const char *path : options.files)
        read_file(path, frames);
    const size_t from_files = frames.size();
    for (octets &frame : make_traffic(options.generate))
        frames.push_back(std::move(frame));
    if (frames.empty()) {
        fputs("compare: no packets\n", stderr);
        return EXIT_FAILURE;
    }
    for (const octets &frame : frames)
        learn_names(frame);

    char directory[] = "/tmp/jorn-compare-XXXXXX";
    if (mkdtemp(directory) == nullptr)
        lab_fail(directory);
    const std::string path = std::string(directory) + "/capture.pcap";
    write_capture(path, frames);
    printf("%zu packets from files, %zu generated\n", from_files, frames.size() - from_files);
    print_mix(frames);

    const auto packets = static_cast<double>(frames.size());
    lab_pin(lab_choose_cpus().consumer);
    const double reader = median_of(options.runs, [&] {
        return (reader_ns(path, "11") - reader_ns(path, "1")) / PASSES / packets;
    });
    const double reading = median_of(options.runs, [&] { return reading_pass_ns(path) / packets; });
    unlink(path.c_str());
    rmdir(directory);

    for (octets &frame : frames)
        frame = with_trailer(frame, plain_trailer());
    jorn_pkt_processor = jorn_decode_eth_pkt;
    platform.is_thorough = false;
    platform.dns_answer = name_of_address;
    if (jorn_dnscache_hash_table_init() != 0)
        lab_fail("the DNS cache");
    const double daemon =
        median_of(options.runs * PASSES, [&] { return daemon_pass_ns(frames) / packets; });

    printf("  ndpiReader -q           %8.1f ns CPU a packet (reading the file alone: %.1f)\n",
           reader, reading);
    printf("  the daemon, in memory   %8.1f ns CPU a packet\n", daemon);
    printf("  a share of 1/%.1f, goal at most 1/5: %s\n", reader / daemon,
           daemon <= reader * GOAL_SHARE ? "met" : "MISSED");
    return EXIT_SUCCESS;
}
