// load: the daemon under more packets and flows than it has room for, while it is sent commands:
// each packet is to have its verdict, and the right one.
//
//   scripts/private load [--packets N]
//
// The first row has as many packets, the others a part of them. All of a row's packets are of flows
// that take turns, so that none is met again soon. Beside the speed stands what it is in the first
// row: what a packet may cost whose sender wants it to be dear.
#include "core/text/text.h"
#include "feeder.h"
#include "flows.h"
#include "lab.h"
#include "platform/host/messages/av_messages.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <getopt.h>
#include <random>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t FLOWS = 1'000'000;
constexpr uint32_t NEAR_SERVERS = 16'000; // fewer than the daemon remembers
constexpr uint16_t OPEN_PORT = 443, DENIED_PORT = 7001;
constexpr size_t SRC_AT = 14 + 12, DST_AT = SRC_AT + 4, PORTS_AT = 14 + 20;
constexpr char DOCUMENT[] = "/run/load.json";
constexpr char DAEMON_LOG[] = "/run/load.log";

void put_be(octets &frame, size_t at, uint32_t value, size_t size) {
    for (size_t i = 0; i < size; ++i)
        frame[at + i] = static_cast<uint8_t>(value >> 8 * (size - 1 - i));
}

uint32_t read_be(const octets &frame, size_t at, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i)
        value = value << 8 | frame[at + i];
    return value;
}

octets empty_frame() {
    av_pkt_trailer trailer = plain_trailer();
    trailer.src_utp_id = 1;
    return with_trailer(flow_frame(0), trailer);
}

// Every tenth flow is to a denied port.
bool is_denied(uint64_t number) {
    return number % FLOWS % 10 == 0;
}

using address_maker = uint32_t (*)(uint32_t flow);

const octets &frame_of_flow(octets &frame, uint64_t number, address_maker server) {
    const auto flow = static_cast<uint32_t>(number % FLOWS);
    put_be(frame, SRC_AT, CLIENTS + flow / 1000, 4);
    put_be(frame, DST_AT, server(flow), 4);
    put_be(frame, PORTS_AT, 20'000 + flow % 1000, 2);
    put_be(frame, PORTS_AT + 2, is_denied(number) ? DENIED_PORT : OPEN_PORT, 2);
    return frame;
}

// What no decoder knows, or only half: types of Ethernet, protocols, headers that lie.
const octets &strange_frame(octets &frame, uint64_t number) {
    static std::mt19937 random{1};
    frame_of_flow(frame, number, [](uint32_t flow) { return SERVERS + flow; });
    const size_t end = frame.size() - sizeof(av_pkt_trailer);
    constexpr size_t TYPE_AT = 12;
    constexpr std::array<uint16_t, 8> TYPES = {0x0800, 0x0806, 0x8100, 0x8864,
                                               0x86DD, 0x8137, 0x88A8, 0x0800};
    put_be(frame, TYPE_AT, number % 16 < 8 ? TYPES[number % 8] : random() & 0xFFFF, 2);
    for (size_t i = 0; i < 4; ++i)
        frame[14 + random() % (end - 14)] = static_cast<uint8_t>(random());
    return frame;
}

struct load_row {
    const char *name;
    unsigned packets_divisor;
    address_maker server; // none: strange frames
    bool known = true;    // to the daemon by name, all of these servers
    bool worst_tables = false;
};

uint32_t near_server(uint32_t flow) {
    return SERVERS + flow % NEAR_SERVERS;
}

uint32_t crafted_server(uint32_t flow) {
    static const std::vector<uint32_t> addresses = [] {
        std::vector<uint32_t> found;
        for (uint32_t address = SERVERS; found.size() < NEAR_SERVERS; ++address)
            if (is_in_crafted_chain(htonl(address)))
                found.push_back(address);
        return found;
    }();
    return addresses[flow % NEAR_SERVERS];
}

uint32_t server_of_its_own(uint32_t flow) {
    return SERVERS + flow;
}

constexpr load_row ROWS[] = {
    {"a million flows", 1, near_server},
    {"the worst tables", 10, near_server, true, true},
    {"names of crafted addresses", 10, crafted_server},
    {"strange types and headers", 20, nullptr, false},
    {"new servers, asked for", 100, server_of_its_own, false},
};

// The capture has eight blocks, each of which is closed after a millisecond, however few frames are
// in it: frames of more milliseconds than these would be lost to a daemon that stands still.
constexpr feeder_options PACE = {
    .names_known = true, .window = 100, .bursts = 4, .silence_ms = 5'000};

// A policy that denies the port; in the worst case behind all others that there is room for.
std::string document(bool worst) {
    std::string applications, rules, policies;
    for (int n = 0; worst && n < 31; ++n)
        applications += R"({"app_name": "other)" + std::to_string(n) +
                        R"(", "dst_ip": "203.0.113.)" + std::to_string(n + 1) +
                        R"(", "dst_port": 9, "app_id": )" + std::to_string(31'000 + n) +
                        R"(, "cat_id": "User Defined"}, )";
    applications +=
        R"({"app_name": "shut", "dst_port": 7001, "app_id": 30001, "cat_id": "User Defined"})";
    for (int n = 0; worst && n < 63; ++n)
        rules += R"({"app_name": "never-)" + std::to_string(n) + std::string(40, 'x') +
                 R"(.example", "deny": true}, )";
    rules += R"({"app_name": "shut", "app_id": 30001, "cat_id": "User Defined", "deny": true})";
    for (int utp = 2; worst && utp <= 64; ++utp)
        policies += R"({"utp_id": )" + std::to_string(utp) + R"(, "name": "other)" +
                    std::to_string(utp) + R"(", "rules": [{"app_name": "x.example"}]}, )";
    policies += R"({"utp_id": 1, "name": "load", "rules": [)" + rules + "]}";
    return R"({"applications": [)" + applications + R"(], "policies": [)" + policies + "]}";
}

std::filesystem::path beside() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

bool jornctl(const std::string &words) {
    const std::string command = beside() / "jornctl";
    return system((command + " " + words + " >/dev/null 2>>" + DAEMON_LOG).c_str()) == 0;
}

pid_t start_daemon(int cpu) {
    const pid_t child = fork();
    if (child < 0)
        lab_fail("fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        lab_pin(cpu);
        setenv(AV_SOCKET_VARIABLE, LAB_SOCKET_PATH, 1);
        if (freopen(DAEMON_LOG, "w", stderr) == nullptr)
            _exit(EXIT_FAILURE);
        execl((beside() / "jorn").c_str(), "jorn", "-i", LAB_CAPTURE_IFACE, nullptr);
        _exit(EXIT_FAILURE);
    }
    return child;
}

// Verdicts come in the order of the frames: each is to be about the next one that wasn't lost, and
// say what is the policy's.
class examiner {
public:
    uint64_t wrong = 0;
    explicit examiner(const load_row &row) : row_(row), frame_(empty_frame()) {}
    void read(const av_verdict &verdict) {
        if (row_.server == nullptr)
            return;
        const uint64_t last = number_ + PACE.window;
        uint64_t found = number_;
        while (found < last && !is_about(verdict.flow_key, found))
            ++found;
        const bool denied = verdict.verdict == AV_VERDICT_DENY;
        wrong += found == last || denied != is_denied(found);
        number_ = (found == last ? number_ : found) + 1;
    }

private:
    bool is_about(const flow_key &key, uint64_t number) {
        frame_of_flow(frame_, number, row_.server);
        return ntohl(key.src_ip_be) == read_be(frame_, SRC_AT, 4) &&
               ntohl(key.dst_ip_be) == read_be(frame_, DST_AT, 4) &&
               ntohs(key.src_port_be) == read_be(frame_, PORTS_AT, 2) &&
               ntohs(key.dst_port_be) == read_be(frame_, PORTS_AT + 2, 2);
    }

    const load_row &row_;
    octets frame_;
    uint64_t number_ = 0;
};

// Commands, one after the other, until it is destroyed.
class commander {
public:
    commander() : thread_([this] { command(); }) {}
    ~commander() { stop(); }
    commander(const commander &) = delete;
    commander &operator=(const commander &) = delete;
    void stop() {
        on_ = false;
        if (thread_.joinable())
            thread_.join();
    }
    unsigned sent = 0, failed = 0; // once it is stopped

private:
    void command() {
        static constexpr const char *COMMANDS[] = {
            "show applications", "show dns", "show priority 1", "show utps", "export", "write"};
        for (; on_; ++sent)
            failed += !jornctl(COMMANDS[sent % std::size(COMMANDS)]);
    }
    std::atomic<bool> on_ = true;
    std::thread thread_;
};

// What a child's resources would say is also what this program had when it was forked.
long peak_kilobytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    constexpr std::string_view KEY = "VmHWM:";
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(KEY))
            return atol(line.c_str() + KEY.size());
    return 0;
}

struct load_result {
    feed_result fed;
    uint64_t wrong = 0;
    unsigned commands = 0, failed = 0;
    long dropped = 0;   // by the capture's ring, for want of room
    long kilobytes = 0; // what the daemon took at most
    bool ended_well = false;
};

load_result run(const load_row &row, uint64_t packets) {
    const lab_cpus cpus = lab_choose_cpus();
    feeder far_side(PACE);
    const pid_t daemon = start_daemon(cpus.consumer);
    octets frame = empty_frame();
    if (!far_side.wait_for_consumer(frame)) {
        fputs("load: no verdict within ten seconds\n", stderr);
        exit(EXIT_FAILURE);
    }
    std::ofstream(DOCUMENT) << document(row.worst_tables);
    load_result result;
    std::thread applier([&] { result.failed += !jornctl(std::string("apply ") + DOCUMENT); });
    while (far_side.feed({&frame, 1}, 1).answered == 0) {
    } // the daemon asks meanwhile
    applier.join();

    const auto make = [&](uint64_t number) -> const octets & {
        return row.server == nullptr ? strange_frame(frame, number)
                                     : frame_of_flow(frame, number, row.server);
    };
    if (row.known)
        far_side.feed(make, NEAR_SERVERS, {});
    examiner checked(row);
    commander commands;
    result.fed = far_side.feed(make, packets, [&](const av_verdict &one) { checked.read(one); });
    commands.stop();
    result.wrong = checked.wrong;
    result.commands = commands.sent;
    result.failed += commands.failed;
    result.dropped = lab_capture_drops(daemon);
    result.kilobytes = peak_kilobytes(daemon);
    int status = 0;
    kill(daemon, SIGTERM);
    waitpid(daemon, &status, 0);
    result.ended_well = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return result;
}

void print(const load_row &row, const load_result &got, double of_first) {
    const auto number = [](uint64_t count) { return static_cast<unsigned long long>(count); };
    const auto answered = static_cast<double>(got.fed.answered);
    printf("%s: %llu verdicts, %llu wrong, %llu without, %ld dropped by the capture; %.0f a "
           "second, %.2f of the first; %.2f questions a packet; at most %.1f ms without a verdict; "
           "%u commands, %u failed; %.1f MB\n",
           row.name, number(got.fed.answered), number(got.wrong), number(got.fed.lost), got.dropped,
           answered / got.fed.seconds, of_first, static_cast<double>(got.fed.questions) / answered,
           got.fed.longest_wait * 1000, got.commands, got.failed,
           static_cast<double>(got.kilobytes) / 1000);
}

uint64_t read_packets(int argc, char *argv[]) {
    uint64_t packets = 10'000'000;
    const option names[] = {{"packets", required_argument, nullptr, 'p'}, {}};
    for (int found; (found = getopt_long(argc, argv, "", names, nullptr)) != -1;) {
        if (found != 'p')
            exit(EXIT_FAILURE);
        packets = strtoull(optarg, nullptr, 10);
    }
    return packets;
}

} // namespace

int main(int argc, char *argv[]) {
    const uint64_t packets = read_packets(argc, argv);
    lab_enter();
    double first_per_second = 0;
    bool good = true;
    for (const load_row &row : ROWS) {
        const load_result got = run(row, packets / row.packets_divisor);
        const double per_second = static_cast<double>(got.fed.answered) / got.fed.seconds;
        if (&row == ROWS)
            first_per_second = per_second;
        print(row, got, per_second / first_per_second);
        fflush(stdout);
        good = good && got.fed.lost == 0 && got.wrong == 0 && got.failed == 0 && got.ended_well;
    }
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
