#include "avcore/session.h"

#include "avcore/base/complaint.h"
#include "avcore/base/monotonic_clock.h"
#include "avcore/base/service_manager.h"
#include "avcore/watch/profile_object.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace avcore {
namespace {

constexpr int PULLS_A_TURN = 32; // then the channel gets its turn, or verdicts pile up in it
constexpr int64_t LONGEST_WAIT_MS = 200;
constexpr int64_t SINK_RETRY_MS = 1;
constexpr int64_t EXPLAIN_AFTER_MS = 1'000;
constexpr int64_t LONGEST_FAREWELL_MS = 1'000;

// The capture's interface that is asked for on the command line goes before the file's.
frame_sink open_sink(const options &options, capture_settings capture) {
    if (!options.out_interface.empty())
        return frame_sink(options.out_interface);
    if (!options.capture.empty())
        capture.interface = options.capture;
    return frame_sink(capture);
}

// The gate would stay attached where it can't stand, so that is asked before.
std::unique_ptr<enforcement> open_gate(const options &options, const enforce_settings &settings,
                                       const std::string &output,
                                       const enforcement::say_function &say) {
    refuse_own_frames(options, output);
    if (options.gate_interfaces.empty())
        return nullptr;
    return std::make_unique<enforcement>(options.pins, options.gate_interfaces, options.attach,
                                         settings, say);
}

frame_source open_source(const options &options, enforcement *behind_gate) {
    if (behind_gate != nullptr)
        return frame_source::open_gate(behind_gate->opened());
    return options.in_interface.empty() ? frame_source::open_file(options.file)
                                        : frame_source::open_interface(options.in_interface);
}

bool wants_agent(const options &options, const std::vector<std::string> &sources) {
    return !sources.empty() || options.agent_down || options.agent_delay_ms.has_value();
}

url_agent open_agent(const options &options, const std::vector<std::string> &sources) {
    category_list categories = category_list::read(sources);
    for (const std::string &remark : categories.remarks())
        std::cerr << "avcore: " << remark << '\n';
    return {{wants_agent(options, sources), options.agent_down, options.agent_delay_ms,
             options.command_socket},
            std::move(categories)};
}

} // namespace

session::session(const options &options, config settings)
    : options_(options),
      settings_(std::move(settings)),
      signals_(options.gate_interfaces.empty()),
      sink_(open_sink(options, settings_.capture)),
      inline_(open_gate(options, settings_.enforce, sink_.name(), sayer())),
      builder_(settings_, options.in_interface),
      feeder_(sink_.timer_ms()),
      source_(open_source(options, inline_.get())),
      channel_(av_socket_path()),
      progress_(!options.file.empty()),
      category_sources_(category_sources(options, settings_)),
      agent_(open_agent(options, category_sources_)),
      safe_search_(options.safe_search.empty()
                       ? nullptr
                       : std::make_unique<safe_search>(options.safe_search)),
      watch_(open_watch()),
      conversation_({settings_, input_interfaces(options), builder_, feeder_, names_, agent_,
                     safe_search_.get(), inline_.get(), watch_.get(), sayer()}),
      bus_name_(settings_.platform_values),
      reports_({builder_.flows(), inline_ ? &inline_->opened() : nullptr, options.json,
                [this] { return totals_text(); }, progress_, sayer(),
                [this](const std::function<void()> &work) {
                    if (inline_)
                        inline_->exempt(work);
                    else
                        work();
                }}) {
    for (const std::string &remark : sink_.remarks())
        say(remark);
    const size_t max_frame_size =
        sink_.max_size() - std::min(sink_.max_size(), sizeof(av_pkt_trailer));
    source_.set_max_frame_size(max_frame_size);
    if (max_frame_size < MAX_FRAME_SIZE)
        say("frames longer than " + std::to_string(max_frame_size) + " bytes can't be carried");
    if (settings_.bus)
        bus_ = std::make_unique<message_bus>(
            *settings_.bus, message_bus::surroundings{
                                bus_socket_path(), [this] { return bus_name_.get(); }, sayer(),
                                [this](std::string_view topic, std::span<const std::byte> payload) {
                                    conversation_.brought(topic, payload);
                                }});
    if (options_.gate_nowhere_else)
        for (const std::string &name : leave_others(inline_->opened()))
            say(name + " isn't named any more: the gate is detached there");
    if (inline_)
        inline_->begin(channel_, feeder_);
    fill_loop();
}

std::function<void(const std::string &)> session::sayer() {
    return [this](const std::string &line) { say(line); };
}

// A row without a function to serve it wakes the loop for what is done in every turn.
void session::fill_loop() {
    if (inline_) {
        loop_.add({.descriptor = [this] { return inline_->interfaces_fd(); },
                   .due_ms = [this](int64_t) { return inline_->follow_due_ms(); },
                   .serve = [this](int64_t) { inline_->follow_interfaces(); }});
        loop_.add({.due_ms = [this](int64_t) { return inline_->next_beat_ms(); }});
        loop_.add({.due_ms = [this](int64_t) { return inline_->next_hold_ms(); }});
    }
    if (bus_)
        loop_.add({.descriptor = [this] { return bus_->fd(); },
                   .due_ms = [this](int64_t) { return bus_->next_tick_ms(); },
                   .serve = [this](int64_t now_ms) { bus_->serve(now_ms); }});
    loop_.add({.due_ms = [this](int64_t) { return conversation_.names_due_ms(); },
               .serve = [this](int64_t) { conversation_.use_names(); }});
    loop_.add({.descriptor = [this] { return agent_.fd(); },
               .due_ms = [this](int64_t) { return agent_.next_tick_ms(); },
               .serve = [this](int64_t now_ms) { agent_.serve(now_ms); }});
    loop_.add({.descriptor = [this] { return channel_.fd(); },
               .due_ms = [this](int64_t) { return channel_.next_tick_ms(); },
               .serve = [this](int64_t now_ms) { serve_channel(now_ms); }});
    // Only while there is room: what waits in the capture's buffer stays there.
    loop_.add({.descriptor = [this] { return has_room() && !sink_full_ ? source_.fd() : -1; },
               .due_ms = [this](int64_t now_ms) { return frames_due_ms(now_ms); }});
    loop_.add({.due_ms = [this](int64_t now_ms) {
        return fresh_categories_.valid() ? now_ms + LONGEST_WAIT_MS : NEVER_MS;
    }});
    for (loop *each : {&loop_, &last_loop_}) {
        if (watch_)
            each->add(watch_->row());
        each->add({.descriptor = [this] { return signals_.fd(); },
                   .serve = [this](int64_t) { take_signal(); }});
        each->add(reports_.row());
    }
    last_loop_.add({.due_ms = [this](int64_t) { return farewell_ends_ms_; }});
}

bool session::has_room() const {
    return !input_ended_ && feeder_.has_room(monotonic_ms());
}

int64_t session::frames_due_ms(int64_t now_ms) const {
    if (more_input_)
        return now_ms;
    if (sink_full_)
        return now_ms + SINK_RETRY_MS;
    const int64_t latest_ms = now_ms + LONGEST_WAIT_MS;
    if (const auto tick_ms = feeder_.next_tick_ms())
        return std::min(*tick_ms, latest_ms);
    return feeder_.waiting() ? latest_ms : NEVER_MS;
}

int session::run() {
    tell_service_manager("READY=1");
    try {
        ending end = ending::none;
        while (end == ending::none)
            end = turn();
        // The gate counts on its beat for as long as this program lives.
        if (inline_ && end == ending::stopped)
            finish_reports(true);
    } catch (const std::runtime_error &error) {
        error_ = error.what();
    }
    progress_.clear();
    if (!error_.empty())
        say(error_);
    if (const bool useless_input = !error_.empty() && source_.counts().read == 0; !useless_input)
        finish_reports(false);
    let_readers_finish();
    return error_.empty() && reports_.all_written() ? 0 : 1;
}

// The last one, behind one that is still being written. Another signal to stop leaves it there.
void session::finish_reports(bool serving) {
    input_ended_ = true;
    ending_ = true;
    while (reports_.is_writing() || !last_report_begun_) {
        if (!reports_.is_writing()) {
            last_report_begun_ = true;
            reports_.begin();
        }
        const int64_t now_ms = monotonic_ms();
        if (serving) {
            tick(now_ms);
            send_frames();
            serve(now_ms);
            continue;
        }
        last_loop_.wait_and_serve(now_ms);
    }
}

session::ending session::turn() {
    const int64_t now_ms = monotonic_ms();
    tick(now_ms);
    send_frames();
    pull_frames();
    if (!options_.file.empty() && !reports_.is_writing())
        progress_.show(source_.share_read(), feeder_.counts().answered, now_ms);
    if (stop_requested_)
        return ending::stopped;
    if (input_ended_ && !feeder_.waiting() && !agent_.waiting())
        return ending::complete;
    if (!inline_ && feeder_.daemon_gone(now_ms)) {
        error_ = feeder_.started() ? "no verdict for 5 seconds: the daemon is gone"
                                   : "no verdict in 30 seconds: no daemon captures the frames";
        return ending::failed;
    }
    explain_waiting(now_ms);
    serve(now_ms);
    return ending::none;
}

void session::serve(int64_t now_ms) {
    loop_.wait_and_serve(now_ms);
    take_categories();
    if (reading_again_ && !fresh_categories_.valid()) {
        reading_again_ = false;
        tell_service_manager("READY=1");
    }
    if (inline_)
        inline_->look(link_down_);
}

void session::serve_channel(int64_t now_ms) {
    channel_.serve([this](byte_span datagram) { return conversation_.take(datagram); }, now_ms);
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
            say("the link of " + sink_.name() + " is down or was: waiting for the daemon");
    }
    if (!link_down_)
        feeder_.tick(now_ms);
}

void session::take_signal() {
    switch (signals_.take()) {
    case signals::request::hangup:
        if (inline_) {
            hang_up();
            break;
        }
        [[fallthrough]];
    case signals::request::stop:
        if (ending_ && reports_.is_writing()) {
            last_report_begun_ = true;
            reports_.leave_unfinished();
        }
        stop_requested_ = true;
        tell_service_manager("STOPPING=1");
        break;
    case signals::request::print:
        if (reports_.is_writing())
            say("the report before is still being written");
        else
            reports_.begin();
        break;
    case signals::request::agent:
        agent_.bring_back();
        break;
    case signals::request::none:
        break;
    }
}

void session::hang_up() {
    reading_again_ = true;
    tell_service_manager("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonic_ns() / 1'000));
    if (options_.config.empty() && options_.categories.empty())
        say("there is no file to read again");
    if (!options_.config.empty())
        read_config_again();
    read_categories_again();
}

// Beside the loop: a million names take longer than the daemon waits for an answer.
void session::read_categories_again() {
    const std::vector<std::string> &wanted = category_sources(options_, settings_);
    if (wanted.empty() && category_sources_.empty())
        return;
    if (fresh_categories_.valid()) {
        say("the categories are still being read; what changed since counts after another SIGHUP");
        return;
    }
    try {
        category_sources_ = wanted;
        fresh_categories_ = std::async(std::launch::async, [sources = category_sources_] {
            return category_list::read(sources);
        });
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
        agent_.replace_categories(std::move(categories), wants_agent(options_, category_sources_));
        conversation_.outdate_verdicts();
        say("the categories were read again");
    } catch (const std::exception &error) {
        say(std::string(error.what()) + "; the categories stay as they were");
    }
}

// What the bus, the capture, the DPI engine, safe search and the gate's places were started with
// stays.
void session::read_config_again() {
    try {
        config fresh = read_config(options_.config);
        for (const std::string &warning : fresh.warnings)
            say(warning);
        fresh.bus = settings_.bus;
        fresh.capture = settings_.capture;
        fresh.dpi = settings_.dpi;
        if (options_.gate_interfaces == settings_.inline_interfaces &&
            fresh.inline_interfaces != settings_.inline_interfaces)
            say("[inline] interfaces are other ones now, which count from the next start on");
        fresh.inline_interfaces = settings_.inline_interfaces;
        settings_ = std::move(fresh);
        inline_->settings_changed();
        say("the configuration was read again");
    } catch (const config_error &error) {
        say(std::string(error.what()) + "; the configuration stays as it was");
    }
}

// What is held longest is over, whether or not it can be asked about; and what only goes behind
// others of its flow doesn't wait for the daemon.
void session::pull_unasked_frames() {
    const bool has_room = feeder_.has_room(monotonic_ms());
    for (int pulls = 0; pulls < PULLS_A_TURN && (source_.is_next_late() ||
                                                 (!has_room && inline_ && inline_->goes_on_next()));
         ++pulls) {
        captured_frame captured;
        if (source_.next(captured) == frame_source::result::frame && !captured.held.empty())
            inline_->hold(*captured.copy, captured.held, monotonic_ms());
    }
}

void session::pull_frames() {
    more_input_ = false;
    pull_unasked_frames();
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
    if (!captured.held.empty() && !inline_->hold(*captured.copy, captured.held, monotonic_ms()))
        return;
    std::optional<frame_builder::built_frame> built = builder_.build(captured);
    if (const std::string remark = builder_.take_remark(); !remark.empty())
        say(remark);
    if (!built)
        return;
    const int64_t now_ms = monotonic_ms();
    if (first_frame_ms_ < 0)
        first_frame_ms_ = now_ms;
    if (captured.copy != nullptr)
        inline_->saw(built->flow.row, *captured.copy, built->frame);
    if (watch_)
        watch_->note(built->flow.row);
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

void session::explain_waiting(int64_t now_ms) {
    if (waiting_explained_ || link_down_ || feeder_.counts().answered > 0 || first_frame_ms_ < 0 ||
        now_ms - first_frame_ms_ < EXPLAIN_AFTER_MS)
        return;
    waiting_explained_ = true;
    if (!inline_ || !inline_->tells_of_waiting()) // else it has
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
    std::cerr << complaint(what); // one write: the stream has no buffer
}

// Without the option a program that was installed on its own, or a second one, goes without.
std::unique_ptr<watch> session::open_watch() {
    if (options_.watch_socket.empty())
        return nullptr;
    try {
        return std::make_unique<watch>(watch_surroundings(), options_.watch_socket);
    } catch (const std::runtime_error &error) {
        if (options_.wants_watch_socket)
            throw;
        say(error.what());
        return nullptr;
    }
}

watch::surroundings session::watch_surroundings() {
    return {builder_.flows(),
            inline_ ? &inline_->opened() : nullptr,
            settings_,
            !options_.file.empty(),
            [this] { return builder_.time_us(); },
            [this] { return look_outside(); },
            [this] { return all_counts(); },
            [this] { return inline_ ? inline_->state_as_json() : "null"; },
            [this](const mac_address &client) {
                const std::string *name = builder_.client_names().find(client);
                return name != nullptr ? *name : std::string();
            },
            [this](const profile_question &asked) { return profile_for(asked); }};
}

watch::outside session::look_outside() const {
    if (!inline_)
        return {channel_.connections() > 0, "", {}};
    return {inline_->somebody_decides(), inline_->state(), inline_->present_interfaces()};
}

std::string session::profile_for(const profile_question &asked) {
    const std::vector<std::string> &gates = options_.gate_interfaces;
    std::string text;
    append_profile(text, asked,
                   {settings_, gates.size() == 1 ? gates[0] : options_.in_interface,
                    builder_.names(), builder_.time_us(), builder_.engine(), agent_});
    return text;
}

named_counts session::all_counts() {
    named_counts counts = counts_of(builder_.flows(), all_totals());
    if (inline_)
        for (named_count &each : inline_->counts())
            counts.push_back(std::move(each));
    return counts;
}

// The ends of flows, for as long as they take them at once.
void session::let_readers_finish() {
    if (!watch_ || inline_) // behind a gate flows go on
        return;
    watch_->stop();
    farewell_ends_ms_ = monotonic_ms() + LONGEST_FAREWELL_MS;
    for (int64_t now_ms = monotonic_ms(); watch_->is_busy() && now_ms < farewell_ends_ms_;
         now_ms = monotonic_ms())
        last_loop_.wait_and_serve(now_ms);
}

totals session::all_totals() const {
    return {source_.counts(),
            feeder_.counts(),
            source_.max_frame_size(),
            conversation_.malformed(),
            safe_search_ ? safe_search_->refused() : 0,
            agent_.counts(),
            conversation_.switches(),
            conversation_.engine_missed(),
            builder_.counts(),
            inline_ ? inline_->refused_writes() : 0};
}

std::string session::totals_text() {
    std::ostringstream out;
    print_totals(out, builder_.flows(), all_totals());
    if (bus_)
        bus_->report(out);
    if (inline_)
        inline_->report(out);
    return out.str();
}

} // namespace avcore
