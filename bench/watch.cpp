// bench_watch: what the watch socket costs avcore's loop, by how many read it and how.
//
//   bench_watch [--seconds N]       by default 5, for each case
//
// A loop counts 20,000 frames a second, in turns of 32, in a table of 50,000 flows, of which 2,000
// a second are new. Given are its thread's CPU time, of a second, and its longest turn: without the
// socket, with it and nobody there, with sixteen readers who follow everything and take nothing,
// and with one who takes it all.
#include "avcore/watch/watch.h"
#include "avcore/base/loop.h"
#include "avcore/base/monotonic_clock.h"
#include "avcore/flows/flow_life.h"
#include "avcore/flows/flow_table.h"
#include "avcore/settings/client_rules.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace avcore;

constexpr int FRAMES_A_TURN = 32;
constexpr int FRAMES_A_SECOND = 20'000;
constexpr uint32_t FLOWS = 50'000;
constexpr uint32_t NEW_A_SECOND = 2'000;
constexpr size_t FRAME_SIZE = 1'000;
constexpr std::string_view FOLLOW =
    "{\"id\":1,\"follow\":[\"flows\",\"events\"],\"every_ms\":1000}\n";

double thread_ms() {
    timespec used = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}

unique_fd reader_of(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        write(fd.get(), FOLLOW.data(), FOLLOW.size()) < 0) {
        perror("watch: no reader");
        exit(EXIT_FAILURE);
    }
    return fd;
}

frame_facts frame_of(uint32_t flow) {
    frame_facts frame;
    frame.ipv4 = true;
    frame.ether_type = 0x0800;
    frame.ip_proto = 17;
    frame.sender.ip_be = 0x0100'000A | (flow % 200) << 16;
    frame.sender.address = frame.sender.ip_be;
    frame.sender.mac = {2, 0, 0, 0, 0, static_cast<uint8_t>(flow % 200)};
    frame.sender.port = static_cast<uint16_t>(1'024 + flow / 200 % 60'000);
    frame.receiver.ip_be = 0x0902'00C0 + (flow / 12'000'000 << 24);
    frame.receiver.address = frame.receiver.ip_be;
    frame.receiver.port = 443;
    return frame;
}

struct figures {
    double ms_a_second = 0;
    double longest_ms = 0;
};

class traffic {
public:
    traffic(const std::string &path, bool watched) : flows_(rules_) {
        if (watched)
            watch_.emplace(
                watch::surroundings{flows_, nullptr, settings_, false, [] { return int64_t{0}; },
                                    [] { return watch::outside(); }, [] { return named_counts(); },
                                    [] { return std::string("null"); },
                                    [](const mac_address &) { return std::string(); },
                                    [](const profile_question &) { return std::string("{}"); }},
                path);
        if (watch_)
            loop_.add(watch_->row());
        loop_.add({.due_ms = [](int64_t now_ms) { return now_ms; }});
        for (newest_ = 0; newest_ < FLOWS; ++newest_)
            count(newest_);
    }

    figures run(int seconds) {
        figures found;
        const int64_t begun_ms = monotonic_ms();
        const double begun_cpu_ms = thread_ms();
        for (int64_t frames = 0; frames < int64_t{FRAMES_A_SECOND} * seconds;
             frames += FRAMES_A_TURN) {
            const int64_t due_ms = begun_ms + frames * 1'000 / FRAMES_A_SECOND;
            while (monotonic_ms() < due_ms)
                usleep(200);
            const double turn_began_ms = thread_ms();
            turn(frames);
            found.longest_ms = std::max(found.longest_ms, thread_ms() - turn_began_ms);
        }
        found.ms_a_second = (thread_ms() - begun_cpu_ms) / seconds;
        return found;
    }

private:
    void turn(int64_t frames) {
        const auto due = static_cast<uint32_t>(frames * NEW_A_SECOND / FRAMES_A_SECOND);
        for (int i = 0; i < FRAMES_A_TURN; ++i)
            count(newest_ + due - static_cast<uint32_t>(random_() % FLOWS));
        loop_.wait_and_serve(monotonic_ms());
    }

    void count(uint32_t flow) {
        const frame_facts frame = frame_of(flow);
        const flow_table::sighting seen = flows_.count_frame(frame, FRAME_SIZE);
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        note_life(seen.row.life, frame, seen.from_client, FRAME_SIZE,
                  int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000);
        if (watch_)
            watch_->note(seen.row);
    }

    config settings_;
    client_rules rules_{settings_, ""};
    flow_table flows_;
    std::optional<watch> watch_;
    loop loop_;
    uint32_t newest_ = 0;
    std::mt19937 random_{1};
};

void measure(const char *what, bool watched, size_t silent, bool reads, int seconds) {
    const std::string path = "/tmp/bench_watch." + std::to_string(getpid());
    traffic all(path, watched);
    std::vector<unique_fd> readers;
    for (size_t i = 0; i < silent + (reads ? 1 : 0); ++i)
        readers.push_back(reader_of(path));
    std::atomic<uint64_t> taken = 0;
    std::thread taker;
    if (reads)
        taker = std::thread([&taken, fd = readers.back().get()] {
            std::array<char, 65'536> bytes;
            for (ssize_t count; (count = read(fd, bytes.data(), bytes.size())) > 0;)
                taken += static_cast<uint64_t>(count);
        });
    const figures found = all.run(seconds);
    printf("%-36s %7.1f ms of a second, longest turn %5.2f ms", what, found.ms_a_second,
           found.longest_ms);
    if (reads) {
        shutdown(readers.back().get(), SHUT_RDWR);
        taker.join();
        printf(", %.1f MB taken", static_cast<double>(taken) / 1e6);
    }
    printf("\n");
}

} // namespace

int main(int argc, char *argv[]) {
    const bool given = argc == 3 && std::string_view(argv[1]) == "--seconds";
    const int seconds = given ? atoi(argv[2]) : 5;
    if ((argc != 1 && !given) || seconds <= 0) {
        fputs("usage: bench_watch [--seconds N]\n", stderr);
        return EXIT_FAILURE;
    }
    measure("without the socket", false, 0, false, seconds);
    measure("nobody reads", true, 0, false, seconds);
    measure("sixteen who follow and take nothing", true, 16, false, seconds);
    measure("one who follows", true, 0, true, seconds);
    return EXIT_SUCCESS;
}
