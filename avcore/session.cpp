#include "avcore/session.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/base/printable.h"
#include "avcore/channel/platform_values.h"
#include "avcore/channel/tool_answers.h"
#include "avcore/enforce/gate_report.h"
#include "avcore/flows/roam_flows.h"
#include "platform/host/machine/base_mac.h"

#include <algorithm>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace avcore {
namespace {

constexpr int PULLS_A_TURN = 32;     // then the channel gets its turn, or verdicts pile up in it
constexpr size_t SWITCHES_MAX = 256; // clients name the interfaces
constexpr int64_t LONGEST_WAIT_MS = 200;
constexpr int64_t SINK_RETRY_MS = 1;
constexpr int64_t EXPLAIN_AFTER_MS = 1'000;
constexpr int64_t BUS_NAME_MS = 1'000;
constexpr int64_t FOLLOW_AGAIN_MS = 1'000;

frame_source open_source(const options &options, gate *gate) {
    if (gate != nullptr)
        return frame_source::open_gate(*gate);
    return options.in_interface.empty() ? frame_source::open_file(options.file)
                                        : frame_source::open_interface(options.in_interface);
}

url_agent open_agent(const options &options) {
    const bool present =
        !options.categories.empty() || options.agent_down || options.agent_delay_ms.has_value();
    category_list categories = category_list::read(options.categories);
    for (const std::string &remark : categories.remarks())
        std::cerr << "avcore: " << remark << '\n';
    return {{present, options.agent_down, options.agent_delay_ms, options.command_socket},
            std::move(categories)};
}

} // namespace

session::session(const options &options, config settings)
    : options_(options),
      settings_(std::move(settings)),
      gate_(options.gate_interfaces.empty()
                ? nullptr
                : std::make_unique<gate>(options.pins, options.gate_interfaces)),
      builder_(settings_, options.in_interface),
      source_(open_source(options, gate_.get())),
      sink_(options.out_interface),
      channel_(av_socket_path()),
      progress_(!options.file.empty()),
      agent_(open_agent(options)),
      safe_search_(options.safe_search.empty()
                       ? nullptr
                       : std::make_unique<safe_search>(options.safe_search)),
      max_frame_size_(sink_.max_size() - std::min(sink_.max_size(), sizeof(av_pkt_trailer))) {
    source_.set_max_frame_size(max_frame_size_);
    if (max_frame_size_ < MAX_FRAME_SIZE)
        std::cerr << "avcore: the MTU of " << options.out_interface << " is below 65535: frames "
                  << "longer than " << max_frame_size_ << " bytes can't be carried\n";
    open_bus();
    if (!gate_)
        return;
    const auto say_line = [this](const std::string &line) { say(line); };
    enforcer_ = std::make_unique<enforcer>(*gate_, settings_.enforce, say_line);
    gate_->set_rules(settings_.enforce.rules);
    enforcer_->policies_changed(); // as far as anyone knows, since the last run
    watch_ = std::make_unique<daemon_watch>(*gate_, settings_.enforce, channel_, feeder_, say_line,
                                            monotonic_ms());
    urgency_ = std::make_unique<urgency>(say_line);
    for (const std::string &way : ways_past_gate(gate_->interfaces()))
        say("past the gate: " + way);
    follow_interfaces();
}

void session::open_bus() {
    if (!settings_.bus)
        return;
    bus_ = std::make_unique<message_bus>(
        *settings_.bus, message_bus::surroundings{bus_socket_path(), [this] { return bus_name(); },
                                                  [this](const std::string &line) { say(line); }});
}

// The base MAC as the daemon finds it; an interface may come, and with it a name.
std::string session::bus_name() {
    const int64_t now_ms = monotonic_ms();
    if (!bus_name_.empty() && now_ms - bus_name_ms_ < BUS_NAME_MS)
        return bus_name_;
    bus_name_ms_ = now_ms;
    char found[MAC_TEXT_SIZE];
    if (const auto given = settings_.platform_values.find(AV_KEY_BASE_MAC);
        given != settings_.platform_values.end())
        bus_name_ = "AP." + given->second;
    else
        bus_name_ = machine_base_mac(found) ? std::string("AP.") + found : std::string();
    return bus_name_;
}

int session::run() {
    try {
        ending end = ending::none;
        while (end == ending::none)
            end = turn();
        // The gate counts on its beat for as long as this program lives.
        if (gate_ && end == ending::stopped)
            finish_reports(true);
    } catch (const std::runtime_error &error) {
        error_ = error.what();
    }
    progress_.clear();
    if (!error_.empty())
        say(error_);
    if (const bool useless_input = !error_.empty() && source_.counts().read == 0; !useless_input)
        finish_reports(false);
    return error_.empty() && report_written_ ? 0 : 1;
}

// The last one, behind one that is still being written. Another signal to stop leaves it there.
void session::finish_reports(bool serving) {
    input_ended_ = true;
    ending_ = true;
    while (report_ || !last_report_begun_) {
        if (!report_) {
            last_report_begun_ = true;
            begin_report();
        }
        const int64_t now_ms = monotonic_ms();
        if (serving) {
            tick(now_ms);
            send_frames();
            serve(now_ms);
            continue;
        }
        pollfd waited[] = {{signals_.fd(), POLLIN, 0}, {STDOUT_FILENO, POLLOUT, 0}};
        poll(waited, std::size(waited), -1);
        take_signal();
        continue_report();
    }
}

session::ending session::turn() {
    const int64_t now_ms = monotonic_ms();
    tick(now_ms);
    send_frames();
    pull_frames();
    if (!options_.file.empty() && !report_)
        progress_.show(source_.share_read(), feeder_.counts().answered, now_ms);
    if (stop_requested_)
        return ending::stopped;
    if (input_ended_ && !feeder_.waiting() && !agent_.waiting())
        return ending::complete;
    if (!gate_ && feeder_.daemon_gone(now_ms)) {
        error_ = feeder_.started() ? "no verdict for 5 seconds: the daemon is gone"
                                   : "no verdict in 30 seconds: no daemon captures the frames";
        return ending::failed;
    }
    explain_waiting(now_ms);
    serve(now_ms);
    return ending::none;
}

void session::serve(int64_t now_ms) {
    wait(now_ms);
    serve_channel();
    if (watch_)
        watch_->look(link_down_, monotonic_ms());
    if (urgency_)
        urgency_->look(monotonic_ns());
    take_signal();
    take_categories();
    continue_report();
}

void session::follow_interfaces() {
    const interface_news news = gate_->follow_interfaces();
    const int64_t now_ms = monotonic_ms();
    follow_due_ms_ = gate_->misses_interfaces() ? now_ms + FOLLOW_AGAIN_MS : NEVER_MS;
    say_some(news.changes, interface_changes_, now_ms);
    say_some(news.failures, interface_failures_, now_ms);
    if (!news.empty())
        enforcer_->interfaces_changed();
}

void session::serve_channel() {
    channel_.serve([this](byte_span datagram) { return take_datagram(datagram); }, monotonic_ms());
    if (const std::string failed = safe_search_ ? safe_search_->write() : ""; !failed.empty())
        say("safe search: " + failed);
}

// Before the feeder takes a silence for lost frames or a gone daemon: it may be the link's.
void session::tick(int64_t now_ms) {
    if (feeder_.silent(now_ms)) {
        const bool was_down = std::exchange(link_down_, sink_.link_lost());
        if (link_down_)
            feeder_.link_lost(now_ms);
        if (link_down_ && !was_down)
            say("the link of " + options_.out_interface +
                " is down or was: waiting for the daemon");
    }
    if (!link_down_)
        feeder_.tick(now_ms);
}

void session::take_signal() {
    switch (signals_.take()) {
    case signals::request::hangup:
        if (gate_) {
            hang_up();
            break;
        }
        [[fallthrough]];
    case signals::request::stop:
        if (ending_ && report_) {
            last_report_begun_ = true;
            end_report("the report is left unfinished");
        }
        stop_requested_ = true;
        break;
    case signals::request::print:
        if (report_)
            say("the report before is still being written");
        else
            begin_report();
        break;
    case signals::request::agent:
        agent_.bring_back();
        break;
    case signals::request::none:
        break;
    }
}

void session::hang_up() {
    if (options_.config.empty() && options_.categories.empty())
        say("there is no file to read again");
    if (!options_.config.empty())
        read_config_again();
    // Beside the loop: a million names take longer than the daemon waits for an answer.
    if (options_.categories.empty())
        return;
    if (fresh_categories_.valid()) {
        say("the categories are still being read; what changed since counts after another SIGHUP");
        return;
    }
    try {
        fresh_categories_ = std::async(std::launch::async,
                                       [this] { return category_list::read(options_.categories); });
    } catch (const std::system_error &error) {
        say(std::string("no thread to read the categories: ") + error.what());
    }
}

void session::take_categories() {
    if (!fresh_categories_.valid() ||
        fresh_categories_.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
        return;
    try {
        category_list categories = fresh_categories_.get();
        for (const std::string &remark : categories.remarks())
            say(remark);
        agent_.replace_categories(std::move(categories));
        outdate_verdicts();
        say("the categories were read again");
    } catch (const std::exception &error) {
        say(std::string(error.what()) + "; the categories stay as they were");
    }
}

// What the bus and the DPI engine were started with stays.
void session::read_config_again() {
    try {
        config fresh = read_config(options_.config);
        for (const std::string &warning : fresh.warnings)
            say(warning);
        fresh.bus = settings_.bus;
        fresh.dpi = settings_.dpi;
        settings_ = std::move(fresh);
        gate_->set_rules(settings_.enforce.rules);
        enforcer_->settings_changed(gate_->interfaces());
        say("the configuration was read again");
    } catch (const config_error &error) {
        say(std::string(error.what()) + "; the configuration stays as it was");
    }
}

void session::pull_frames() {
    more_input_ = false;
    for (int pulls = 0; !input_ended_ && !sink_full_ && feeder_.has_room(monotonic_ms()); ++pulls) {
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
            explain_link_type();
            break;
        case frame_source::result::nothing:
            return;
        case frame_source::result::failed:
            error_ = source_.error();
            input_ended_ = true;
            break;
        case frame_source::result::end:
            input_ended_ = true;
            break;
        }
    }
}

void session::take_frame(const captured_frame &captured) {
    std::optional<frame_builder::built_frame> built = builder_.build(captured);
    if (const std::string remark = builder_.take_remark(); !remark.empty())
        say(remark);
    if (!built)
        return;
    const int64_t now_ms = monotonic_ms();
    if (first_frame_ms_ < 0)
        first_frame_ms_ = now_ms;
    if (captured.copy != nullptr) {
        enforcer_->saw(built->flow.row, *captured.copy, built->flow.from_client);
        built->frame.generation = gate_->generation();
    }
    names_.add(feeder_.add(std::move(built->frame), now_ms), std::move(built->lesson));
    names_.advance(feeder_.judged());
}

void session::send_frames() {
    sink_full_ = false;
    while (!link_down_) {
        const int64_t now_ms = monotonic_ms();
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
    int64_t timeout_ms = feeder_.waiting() ? LONGEST_WAIT_MS : -1;
    if (const auto tick_ms = feeder_.next_tick_ms())
        timeout_ms = std::clamp<int64_t>(*tick_ms - now_ms, 0, LONGEST_WAIT_MS);
    if (sink_full_)
        timeout_ms = SINK_RETRY_MS;
    if (more_input_ || (report_ && !report_waits_))
        timeout_ms = 0;
    const int64_t due_ms = std::min({bus_ ? bus_->next_tick_ms() : NEVER_MS, agent_.next_tick_ms(),
                                     channel_.next_tick_ms(),
                                     watch_ ? watch_->next_tick_ms() : NEVER_MS, follow_due_ms_});
    if (due_ms != NEVER_MS) {
        const int64_t left_ms = std::max<int64_t>(due_ms - now_ms, 0);
        timeout_ms = timeout_ms < 0 ? left_ms : std::min(timeout_ms, left_ms);
    }
    pollfd waited[] = {
        {signals_.fd(), POLLIN, 0},
        {channel_.fd(), POLLIN, 0},
        // Only while there is room: what waits in the capture's buffer stays there.
        {!input_ended_ && feeder_.has_room(monotonic_ms()) ? source_.fd() : -1, POLLIN, 0},
        {bus_ ? bus_->fd() : -1, POLLIN, 0},
        {agent_.fd(), POLLIN, 0},
        {gate_ ? gate_->interfaces_fd() : -1, POLLIN, 0},
        {report_ && report_waits_ ? STDOUT_FILENO : -1, POLLOUT, 0},
    };
    poll(waited, std::size(waited), static_cast<int>(timeout_ms));
    const int64_t woken_ms = monotonic_ms();
    if (waited[5].revents != 0 || woken_ms >= follow_due_ms_)
        follow_interfaces();
    if (bus_ && (waited[3].revents != 0 || woken_ms >= bus_->next_tick_ms()))
        bus_->serve(woken_ms);
    agent_.serve(woken_ms);
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
    else if (const auto *application = std::get_if<av_app_setting>(&*message))
        take(*application);
    else if (const auto *mapping = std::get_if<av_safesearch_setting>(&*message))
        take(*mapping);
    else if (const auto *setting = std::get_if<switch_setting>(&*message))
        take(*setting);
    else if (std::holds_alternative<policy_reset>(*message))
        outdate_verdicts();
    return {};
}

void session::outdate_verdicts() {
    builder_.flows().outdate_verdicts();
    if (enforcer_)
        enforcer_->policies_changed();
}

void session::take(const av_verdict &verdict) {
    const int64_t now_ms = monotonic_ms();
    const std::optional<fed_frame> frame = feeder_.take_verdict(verdict.flow_key, now_ms);
    if (!frame)
        return;
    flow_row *row = builder_.flows().set_verdict(frame->flow, verdict, frame->trailer());
    if (enforcer_) {
        if (watch_->answered(now_ms))
            enforcer_->policies_changed();
        if (row != nullptr)
            enforcer_->judged(*row, *frame, verdict, now_ms);
    }
    const bool ignored = ignores_engine(frame->trailer(), verdict);
    if (!std::exchange(engine_ignored_, engine_ignored_ || ignored) && engine_missed())
        say("the daemon does without the DPI engine, and names flows less well: it asks once, at "
            "its "
            "start, when avcore has to be there; start it again");
}

void session::take(const syslog_line &line) {
    const std::string text = with_real_addresses(
        line.text, [this](uint32_t ip_be) { return builder_.stand_ins().real(ip_be); });
    say("syslog, level " + std::to_string(line.level) + ": " + printable(text));
}

void session::take(const av_app_setting &setting) {
    flow_row *row = builder_.flows().set_application(setting);
    if (row == nullptr)
        ++unknown_flows_;
    else if (enforcer_)
        enforcer_->set(*row, setting, monotonic_ms());
}

void session::take(const av_safesearch_setting &setting) {
    const std::string refusal = safe_search_ ? safe_search_->take(setting) : "";
    if (!refusal.empty() && refused_safe_search_++ == 0)
        say("safe search: " + refusal);
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
    case av_op::rflow_get_roam:
        return answer_roam_flows(builder_.flows(), builder_.time_us(), asked);
    case av_op::dnscache_get_name:
        names_.advance(feeder_.judged());
        return answer_domain_name(names_.names(), builder_.stand_ins(), names_.time_us(), asked);
    case av_op::urlfilter_get_category:
        return agent_.answer(asked, monotonic_ms());
    case av_op::platform_value:
        engine_asked_ |= asked_key(asked) == AV_KEY_DPI_ENGINE;
        return answer_platform_value(settings_, asked);
    default:
        return answer_tool(builder_.engine(), settings_, asked);
    }
}

void session::explain_waiting(int64_t now_ms) {
    if (waiting_explained_ || link_down_ || feeder_.counts().answered > 0 || first_frame_ms_ < 0 ||
        now_ms - first_frame_ms_ < EXPLAIN_AFTER_MS)
        return;
    waiting_explained_ = true;
    if (!gate_ || settings_.enforce.rules.fail_closed) // else the watch has said it
        say("waiting for a daemon to answer the first frame");
}

void session::explain_link_type() {
    const std::string type = source_.foreign_link_type();
    if (type.empty() || std::exchange(link_type_explained_, true))
        return;
    say("the link type is " + type + ", not Ethernet: nothing to carry");
}

void session::say(const std::string &what) {
    progress_.clear();
    std::cerr << "avcore: " + what + '\n'; // one write: the stream has no buffer
}

void session::say_some(const std::vector<std::string> &lines, line_cap &cap, int64_t now_ms) {
    for (const std::string &line : lines)
        if (cap.admits(now_ms))
            say(line + cap.remark());
}

void session::begin_report() {
    progress_.clear();
    report_waits_ = false;
    report_ = std::make_unique<report_job>(
        row_writer(builder_.flows(), gate_.get(), options_.json),
        [this] { return options_.json ? "" : '\n' + totals_text(); }, STDOUT_FILENO);
}

void session::continue_report() {
    if (!report_)
        return;
    report_job::state now = report_job::state::goes_on;
    const auto go_on = [&] { now = report_->go_on(); };
    if (urgency_)
        urgency_->exempt(go_on);
    else
        go_on();
    report_waits_ = now == report_job::state::waits;
    if (now == report_job::state::written)
        end_report(nullptr);
    else if (now == report_job::state::failed)
        end_report("the report can't be written");
}

void session::end_report(const char *failure) {
    report_.reset();
    progress_.clear();
    if (options_.json)
        std::cerr << totals_text();
    if (failure != nullptr)
        say(failure);
    report_written_ = report_written_ && failure == nullptr;
}

bool session::engine_missed() const {
    return builder_.has_engine() && !engine_asked_ && engine_ignored_;
}

std::string session::totals_text() {
    const flow_table &flows = builder_.flows();
    const totals totals = {source_.counts(),
                           feeder_.counts(),
                           max_frame_size_,
                           malformed_messages_,
                           unknown_flows_,
                           refused_safe_search_,
                           agent_.counts(),
                           switches_,
                           engine_missed(),
                           builder_.counts(),
                           enforcer_ ? enforcer_->refused_writes() : 0};
    std::ostringstream out;
    print_totals(out, flows, totals);
    if (bus_)
        bus_->report(out);
    if (gate_)
        print_gate_counts(out, gate_->counts());
    return out.str();
}

} // namespace avcore
