#include "feeder.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/base/send_message.h"
#include "lab.h"
#include "platform/host/messages/av_messages.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t VERDICT_SIZE = sizeof(av_verdict);
constexpr int SILENCE_MS = 200;
constexpr useconds_t REST_US = 20;
constexpr int FIRST_VERDICT_TRIES = 50;
constexpr size_t BATCH = 64;
constexpr size_t MESSAGE_SIZE = 512;

template <typename Body>
struct answer_record {
    av_answer_head head;
    Body body;
};

template <typename Record>
void send_record(int fd, const Record &record) {
    // A peer that has gone needs no answer.
    [[maybe_unused]] const ssize_t sent = send(fd, &record, sizeof record, MSG_NOSIGNAL);
}

bool asks_for_engine(const uint8_t *body, size_t size) {
    av_value_question question;
    if (size < sizeof question)
        return false;
    memcpy(&question, body, sizeof question);
    return strncmp(question.key, AV_KEY_DPI_ENGINE, sizeof question.key) == 0;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int open_packet_socket() {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(LAB_FEEDER_IFACE));
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        lab_fail("the feeder's packet socket");
    return fd;
}

int open_listener() {
    unlink(LAB_SOCKET_PATH);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, LAB_SOCKET_PATH, sizeof LAB_SOCKET_PATH);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, 8) != 0)
        lab_fail(LAB_SOCKET_PATH);
    return fd;
}

} // namespace

feeder::feeder(feeder_options options)
    : options_(options), packet_socket_(open_packet_socket()), listener_(open_listener()) {
    prctl(PR_SET_TIMERSLACK, 1000); // ns: short sleeps are short
}

feeder::~feeder() {
    for (const int fd : connections_)
        close(fd);
    close(listener_);
    close(packet_socket_);
}

bool feeder::wait_for_consumer(const octets &frame) {
    for (int attempt = 0; attempt < FIRST_VERDICT_TRIES; ++attempt) {
        send_frame(frame);
        const auto sent = std::chrono::steady_clock::now();
        unsigned verdicts = 0;
        while (seconds_since(sent) * 1000 < SILENCE_MS)
            verdicts += wait_readable(SILENCE_MS) ? receive() : 0;
        if (verdicts != 0)
            return true;
    }
    return false;
}

feed_result feeder::feed(std::span<const octets> frames, uint64_t count) {
    const auto in_turn = [&](uint64_t number) -> const octets & {
        return frames[static_cast<size_t>(number % frames.size())];
    };
    return feed(in_turn, count, {});
}

feed_result feeder::feed(const frame_maker &make, uint64_t count, verdict_reader read) {
    feed_result result;
    questions_ = 0;
    read_ = std::move(read);
    const auto start = std::chrono::steady_clock::now();
    auto last_verdict = start;
    uint64_t sent = 0;
    while (result.answered + result.lost < count) {
        const bool had_room = sent < count && has_room();
        if (had_room && send_frame(make(sent))) {
            ++sent;
            note_sent();
        } else {
            rest();
        }
        const unsigned verdicts = receive();
        result.answered += verdicts;
        note_gone(std::min<uint64_t>(verdicts, outstanding_));
        if (verdicts != 0) {
            result.longest_wait = std::max(result.longest_wait, seconds_since(last_verdict));
            last_verdict = std::chrono::steady_clock::now();
        } else if (!had_room && seconds_since(last_verdict) * 1000 >= options_.silence_ms) {
            result.lost += outstanding_;
            note_gone(outstanding_);
        }
    }
    result.seconds = seconds_since(start);
    result.questions = questions_;
    read_ = {};
    return result;
}

bool feeder::has_room() const {
    return outstanding_ < options_.window &&
           (options_.bursts == 0 || bursts_.size() < options_.bursts ||
            bursts_.back().at_ms == avcore::monotonic_ms());
}

void feeder::note_sent() {
    ++outstanding_;
    if (options_.bursts == 0)
        return;
    const int64_t now_ms = avcore::monotonic_ms();
    if (bursts_.empty() || bursts_.back().at_ms != now_ms)
        bursts_.push_back({now_ms, 0});
    ++bursts_.back().frames;
}

void feeder::note_gone(uint64_t frames) {
    outstanding_ -= frames;
    while (!bursts_.empty() && frames >= bursts_.front().frames) {
        frames -= bursts_.front().frames;
        bursts_.pop_front();
    }
    if (!bursts_.empty())
        bursts_.front().frames -= frames;
}

// Nothing can be sent now. Whoever waits for the socket makes every verdict pay for the wake-up,
// the more of them the faster this side is, so that two consumers couldn't be compared: this side
// looks again after a short sleep. A consumer that asks stands still until it is answered; it does
// wake this side up.
void feeder::rest() {
    if (questions_ != 0)
        wait_readable(SILENCE_MS);
    else
        usleep(REST_US);
}

bool feeder::send_frame(const octets &frame) const {
    return send(packet_socket_, frame.data(), frame.size(), 0) ==
           static_cast<ssize_t>(frame.size());
}

bool feeder::wait_readable(int timeout_ms) {
    std::vector<pollfd> wanted = {{listener_, POLLIN, 0}};
    for (const int fd : connections_)
        wanted.push_back({fd, POLLIN, 0});
    return poll(wanted.data(), wanted.size(), timeout_ms) > 0;
}

// Takes everything that is waiting. Returns the number of verdicts among it.
unsigned feeder::receive() {
    // New connections come while nothing is measured: only then is the listener asked each time.
    if (connections_.empty())
        accept_connection();
    unsigned verdicts = 0;
    for (size_t i = 0; i < connections_.size(); ++i)
        verdicts += receive_from(connections_[i]);
    return verdicts;
}

unsigned feeder::receive_from(int fd) {
    static std::array<std::array<uint8_t, MESSAGE_SIZE>, BATCH> buffers;
    std::array<iovec, BATCH> pieces = {};
    std::array<mmsghdr, BATCH> messages = {};
    for (size_t i = 0; i < BATCH; ++i) {
        pieces[i] = {buffers[i].data(), MESSAGE_SIZE};
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int received = recvmmsg(fd, messages.data(), BATCH, MSG_DONTWAIT, nullptr);
    if (received <= 0)
        return 0;
    unsigned verdicts = 0;
    for (size_t i = 0; i < static_cast<size_t>(received); ++i) {
        if (messages[i].msg_len == 0) { // the peer has gone
            close(fd);
            std::erase(connections_, fd);
            break;
        }
        verdicts += handle(fd, buffers[i].data(), messages[i].msg_len) ? 1 : 0;
    }
    return verdicts;
}

// Returns whether the message is a verdict. The bare loop sends the record without a header.
bool feeder::handle(int fd, const uint8_t *message, size_t size) {
    if (size == VERDICT_SIZE)
        return true;
    av_message_head head = {};
    if (size < sizeof head)
        return false;
    memcpy(&head, message, sizeof head);
    if (head.op <= AV_LAST_ONE_WAY_OP) {
        const bool is_verdict = head.op == av_op::ioctl;
        if (is_verdict && read_ && size == sizeof head + sizeof(av_ioctl_call) + VERDICT_SIZE) {
            av_verdict verdict;
            memcpy(&verdict, message + size - VERDICT_SIZE, sizeof verdict);
            read_(verdict);
        }
        return is_verdict;
    }

    if (head.op == av_op::dnscache_get_name) {
        ++questions_;
        answer_record<av_name_answer> record = {{head, 0}, {}};
        if (options_.names_known) {
            std::fill(std::begin(record.body.words), std::end(record.body.words), 1);
            strcpy(record.body.name, "www.example.com");
        }
        send_record(fd, record);
    } else if (head.op == av_op::platform_value && options_.engine_present &&
               asks_for_engine(message + sizeof head, size - sizeof head)) {
        send_record(fd, answer_record<av_value_answer>{{head, 0}, {"1"}});
    } else if (head.op == av_op::name_page && options_.page_shared) {
        const av_answer_head answer = {head, 0};
        avcore::send_message(fd, std::as_bytes(std::span(&answer, 1)), nothing_new_.descriptor());
    } else {
        send_record(fd, av_answer_head{head, -1});
    }
    return false;
}

void feeder::accept_connection() {
    for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0)
            return;
        connections_.push_back(fd);
    }
}
