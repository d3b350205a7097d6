#include "avcore/session.h"

#include "avcore/platform_values.h"
#include "avcore/trailer_builder.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iostream>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>

namespace avcore {
namespace {

constexpr int PULLS_A_TURN = 32; // then the channel gets its turn, or verdicts pile up in it
constexpr uint16_t DNS_PORT = 53;
constexpr size_t SWITCHES_MAX = 256; // clients name the interfaces
constexpr int64_t LONGEST_WAIT_MS = 200;
constexpr int64_t SINK_RETRY_MS = 1;
constexpr int64_t EXPLAIN_AFTER_MS = 1'000;

int64_t clock_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

unique_fd block_stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    unique_fd fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd.valid())
        throw std::runtime_error(std::string("signals: ") + strerror(errno));
    return fd;
}

frame_source open_source(const options &options) {
    return options.in_interface.empty() ? frame_source::open_file(options.file)
                                        : frame_source::open_interface(options.in_interface);
}

} // namespace

session::session(const options &options, const config &settings)
    : options_(options),
      settings_(settings),
      rules_(settings, options.in_interface),
      flows_(rules_),
      signals_(block_stop_signals()),
      source_(open_source(options)),
      sink_(options.out_interface),
      channel_(av_socket_path()),
      progress_(!options.file.empty()),
      dpi_(settings.dpi ? std::make_unique<dpi_engine>() : nullptr),
      max_frame_size_(sink_.max_size() - std::min(sink_.max_size(), sizeof(av_pkt_trailer))) {
    source_.set_max_frame_size(max_frame_size_);
    if (max_frame_size_ < MAX_FRAME_SIZE)
        std::cerr << "avcore: the MTU of " << options.out_interface << " is below 65535: frames "
                  << "longer than " << max_frame_size_ << " bytes can't be carried\n";
    if (const std::string type = source_.foreign_link_type(); !type.empty())
        std::cerr << "avcore: the link type is " << type << ", not Ethernet: nothing to carry\n";
}

int session::run() {
    ending end = ending::none;
    try {
        while (end == ending::none)
            end = turn();
    } catch (const std::runtime_error &error) {
        error_ = error.what();
        end = ending::failed;
    }
    progress_.clear();
    if (!error_.empty())
        std::cerr << "avcore: " << error_ << '\n';
    report();
    return end == ending::failed || !error_.empty() ? 1 : 0;
}

session::ending session::turn() {
    const int64_t now_ms = clock_ms();
    feeder_.tick(now_ms);
    send_frames();
    pull_frames();
    if (!options_.file.empty())
        progress_.show(source_.share_read(), feeder_.counts().answered, now_ms);
    if (stop_requested_)
        return ending::stopped;
    if (input_ended_ && !feeder_.busy())
        return ending::complete;
    if (feeder_.daemon_gone(now_ms)) {
        error_ = feeder_.started() ? "no verdict for 5 seconds: the daemon is gone"
                                   : "no verdict in 30 seconds: no daemon captures the frames";
        return ending::failed;
    }
    explain_waiting(now_ms);
    wait(now_ms);
    channel_.serve([this](byte_span datagram) { return take_datagram(datagram); });
    signalfd_siginfo signal = {};
    stop_requested_ = read(signals_.get(), &signal, sizeof signal) > 0;
    return ending::none;
}

void session::pull_frames() {
    more_input_ = false;
    for (int pulls = 0; !input_ended_ && !sink_full_ && feeder_.has_room(clock_ms()); ++pulls) {
        if (pulls == PULLS_A_TURN) {
            more_input_ = true;
            return;
        }
        captured_frame captured;
        switch (source_.next(captured)) {
        case frame_source::result::frame:
            take_frame(captured);
            send_frames();
            break;
        case frame_source::result::skipped:
            break;
        case frame_source::result::nothing:
            return;
        case frame_source::result::failed:
            error_ = "the input ends early: " + source_.error();
            input_ended_ = true;
            break;
        case frame_source::result::end:
            input_ended_ = true;
            break;
        }
    }
}

void session::take_frame(const captured_frame &captured) {
    fed_frame fed;
    fed.bytes.reserve(captured.bytes.size() + sizeof(av_pkt_trailer));
    fed.bytes.assign(captured.bytes.begin(), captured.bytes.end());
    fed.bytes.resize(captured.bytes.size() + sizeof(av_pkt_trailer));

    const frame_facts frame = decode_frame(fed.bytes);
    const flow_table::sighting flow = flows_.count_frame(frame, captured.bytes.size());
    av_pkt_trailer trailer = build_trailer(rules_, frame, flow);
    frame_time_us_ = captured.time_us;
    if (const auto packet = ipv4_packet(captured.bytes); !packet.empty()) {
        learn_names(frame, packet, captured.time_us);
        if (dpi_)
            dpi_->inspect(frame, packet, captured.time_us, trailer);
    }
    memcpy(fed.bytes.data() + captured.bytes.size(), &trailer, sizeof trailer);
    fed.key = frame.key;
    fed.row = flow.row;
    const int64_t now_ms = clock_ms();
    if (first_frame_ms_ < 0)
        first_frame_ms_ = now_ms;
    feeder_.add(std::move(fed), now_ms);
}

void session::learn_names(const frame_facts &frame, std::span<const uint8_t> packet,
                          int64_t time_us) {
    if (frame.sender.port != DNS_PORT)
        return;
    names_.learn(read_dns_answer(udp_payload(packet)), time_us);
}

void session::send_frames() {
    sink_full_ = false;
    for (;;) {
        const int64_t now_ms = clock_ms();
        const fed_frame *frame = feeder_.next_to_send(now_ms);
        if (frame == nullptr)
            return;
        if (!sink_.write(frame->bytes)) {
            sink_full_ = true;
            return;
        }
        feeder_.sent(now_ms);
    }
}

void session::wait(int64_t now_ms) {
    int64_t timeout_ms = feeder_.busy() ? LONGEST_WAIT_MS : -1;
    if (const auto tick_ms = feeder_.next_tick_ms())
        timeout_ms = std::clamp<int64_t>(*tick_ms - now_ms, 0, LONGEST_WAIT_MS);
    if (sink_full_)
        timeout_ms = SINK_RETRY_MS;
    if (more_input_)
        timeout_ms = 0;
    pollfd waited[] = {
        {signals_.get(), POLLIN, 0},
        {channel_.fd(), POLLIN, 0},
        // Only while there is room: what waits in the capture's buffer stays there.
        {!input_ended_ && feeder_.has_room(clock_ms()) ? source_.fd() : -1, POLLIN, 0},
    };
    poll(waited, std::size(waited), static_cast<int>(timeout_ms));
}

std::vector<std::byte> session::take_datagram(byte_span datagram) {
    const std::optional<channel_message> message = parse_message(datagram);
    if (!message) {
        ++malformed_messages_;
        return {};
    }
    if (const auto *asked = std::get_if<question>(&*message))
        return answer(*asked);
    if (const auto *verdict = std::get_if<av_verdict>(&*message))
        take(*verdict);
    else if (const auto *line = std::get_if<syslog_line>(&*message))
        take(*line);
    else if (const auto *setting = std::get_if<switch_setting>(&*message))
        take(*setting);
    else if (std::holds_alternative<policy_reset>(*message))
        flows_.outdate_verdicts();
    return {};
}

void session::take(const av_verdict &verdict) {
    const feeder::answer answer = feeder_.take_verdict(verdict.flow_key, clock_ms());
    if (answer.answered && answer.row != nullptr)
        flows_.set_verdict(*answer.row, verdict);
}

void session::take(const syslog_line &line) {
    progress_.clear();
    std::cerr << "avcore: syslog, level " << line.level << ": " << printable(line.text) << '\n';
}

void session::take(const switch_setting &setting) {
    constexpr const char *names[] = {"", "av", "url", "wfc", "tm"};
    std::string name = names[static_cast<uint32_t>(setting.which)];
    if (!setting.if_name.empty())
        name += ' ' + printable(setting.if_name);
    if (switches_.size() < SWITCHES_MAX || switches_.contains(name))
        switches_[name] = setting.value;
}

std::vector<std::byte> session::answer(const question &asked) {
    switch (asked.head.op) {
    case av_op::dnscache_get_name:
        return answer_domain_name(names_, frame_time_us_, asked);
    case av_op::platform_value:
        engine_asked_ |= asked_key(asked) == AV_KEY_DPI_ENGINE;
        return answer_platform_value(settings_, asked);
    default:
        return make_answer(asked, -1);
    }
}

void session::explain_waiting(int64_t now_ms) {
    if (waiting_explained_ || feeder_.started() || first_frame_ms_ < 0 ||
        now_ms - first_frame_ms_ < EXPLAIN_AFTER_MS)
        return;
    waiting_explained_ = true;
    progress_.clear();
    std::cerr << "avcore: waiting for a daemon to answer the first frame\n";
}

void session::report() {
    const totals totals = {source_.counts(),    feeder_.counts(), max_frame_size_,
                           malformed_messages_, switches_,        dpi_ && !engine_asked_};
    if (options_.json)
        print_json(std::cout, flows_);
    else
        print_table(std::cout, flows_);
    std::ostream &out = options_.json ? std::cerr : std::cout;
    if (!options_.json)
        out << '\n';
    print_totals(out, flows_, totals);
    std::cout.flush();
}

} // namespace avcore
