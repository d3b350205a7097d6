#include "avcore/watch/watch.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/watch/json_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

namespace avcore {
namespace {

constexpr int64_t LOOK_MS = 200;
constexpr mode_t MODE = 0660;
constexpr std::string_view FULL = "{\"error\":\"sixteen readers are connected\"}\n";

int64_t wall_us() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000;
}

std::string random_word() {
    std::random_device random;
    std::string word;
    for (int i = 0; i < 4; ++i) {
        char text[16];
        snprintf(text, sizeof text, "%08x", unsigned{random()});
        word += text;
    }
    return word;
}

std::string boot_word() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string word;
    file >> word;
    std::erase(word, '-');
    return word;
}

// By a run before; INT64_MAX: none has told anybody of ends.
int64_t told_until_us(const gate *behind) {
    const uint64_t told_ns = behind != nullptr ? behind->told_ns() : 0;
    if (told_ns == 0)
        return INT64_MAX;
    const auto age_us = static_cast<int64_t>((monotonic_ns() - told_ns) / 1'000);
    return wall_us() - age_us;
}

// Where it can't be made, the socket can't be opened, and that says why.
const std::string &with_folder(const std::string &path) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    return path;
}

} // namespace

watch::watch(surroundings around, const std::string &path)
    : around_(std::move(around)),
      run_(random_word()),
      started_us_(wall_us()),
      listener_("watch socket", with_folder(path), {SOCK_STREAM, MODE}),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      flows_({around_.flows, around_.behind, around_.settings, run_.substr(0, 16),
              [this] { return now_us(); }, told_until_us(around_.behind)}),
      sources_({flows_, around_.behind, around_.counts, around_.gate_state, around_.host_name,
                around_.profile}) {
    if (!epoll_.valid())
        throw std::runtime_error(std::string("watch socket: ") + strerror(errno));
    watch_listener(true);
}

// Where nothing comes a capture's time stands still, and flows are idle nevertheless.
int64_t watch::now_us() const {
    return around_.in_file_time ? around_.frame_us() : wall_us();
}

loop::row watch::row() {
    return {.descriptor = [this] { return epoll_.get(); },
            .due_ms = [this](int64_t now_ms) { return due_ms(now_ms); },
            .serve = [this](int64_t now_ms) { serve(now_ms); }};
}

void watch::watch_listener(bool on) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = listener_.fd();
    epoll_ctl(epoll_.get(), on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, listener_.fd(), &event);
}

std::string watch::greeting() const {
    std::string text;
    {
        json_object object(text);
        object.add("jorn", "watch");
        object.add("version", 1);
        object.add("run", run_);
        object.add("boot", boot_word());
        object.add("started_us", started_us_);
        object.add("inline", around_.behind != nullptr);
        object.add("counts", around_.behind != nullptr ? "wire" : "seen");
    }
    return text + '\n';
}

void watch::accept_readers(int64_t now_ms) {
    const auto take = [this] {
        unique_fd accepted = listener_.accept();
        if (!accepted.valid())
            return false;
        const int fd = accepted.get();
        epoll_event event = {};
        event.data.fd = fd;
        if (readers_.size() >= MAX_CONNECTIONS)
            send(fd, FULL.data(), FULL.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        else if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0)
            readers_.try_emplace(fd, std::move(accepted), sources_, greeting());
        return true;
    };
    if (!pause_.take_some(accept_pause::FEW, now_ms, take))
        watch_listener(false);
}

void watch::serve(int64_t now_ms) {
    if (pause_.ends(now_ms))
        watch_listener(true);
    std::array<epoll_event, MAX_CONNECTIONS + 1> events;
    const int count = epoll_wait(epoll_.get(), events.data(), events.size(), 0);
    for (int i = 0; i < count; ++i) {
        const int fd = events[static_cast<size_t>(i)].data.fd;
        if (const auto found = readers_.find(fd); found != readers_.end())
            found->second.ready = events[static_cast<size_t>(i)].events;
        else
            accept_readers(now_ms);
    }
    if (!readers_.empty())
        look_around(now_ms);
    take_turns(now_ms);
}

// The gate knows for the next run which ends were told in the last round.
void watch::walk(int64_t now_ms) {
    if (now_ms >= round_due_ms()) {
        flows_.want_round();
        round_wanted_ms_ = now_ms;
    }
    flows_.step();
    const uint64_t done = flows_.rounds_done();
    if (std::exchange(rounds_noted_, done) != done && around_.behind != nullptr)
        around_.behind->note_told(monotonic_ns() -
                                  static_cast<uint64_t>(flows_.round_age_us() + LINGER_US) * 1'000);
}

void watch::take_turns(int64_t now_ms) {
    const bool was_attended = !readers_.empty();
    if (was_attended)
        flows_.attend(true);
    walk(now_ms);
    for (auto each = readers_.begin(); each != readers_.end();) {
        reader &one = each->second;
        if (!one.with.serve(std::exchange(one.ready, 0), now_ms)) {
            each = readers_.erase(each);
            continue;
        }
        epoll_event event = {};
        const uint32_t events = one.with.events();
        event.events = events;
        event.data.fd = each->first;
        if (std::exchange(one.events, events) != events)
            epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, each->first, &event);
        ++each;
    }
    flows_.release_ended();
    if (was_attended && readers_.empty())
        flows_.attend(false);
}

int64_t watch::due_ms(int64_t now_ms) const {
    if (readers_.empty())
        return pause_.until_ms();
    if (flows_.is_walking())
        return now_ms;
    int64_t due_ms = std::min(pause_.until_ms(), round_due_ms());
    if (are_events_followed())
        due_ms = std::min(due_ms, look_due_ms_);
    for (const auto &[fd, each] : readers_)
        due_ms = std::min(due_ms, each.with.due_ms(now_ms));
    return due_ms;
}

int64_t watch::round_due_ms() const {
    int64_t due_ms = NEVER_MS;
    for (const auto &[fd, each] : readers_)
        if (const follower *one = each.with.following())
            due_ms = std::min(due_ms, one->round_due_ms(round_wanted_ms_));
    return due_ms;
}

bool watch::are_events_followed() const {
    return std::ranges::any_of(readers_, [](const auto &each) {
        const follower *one = each.second.with.following();
        return one != nullptr && one->takes_events();
    });
}

// What isn't about a flow.

void watch::tell(const char *what, const std::string &members) {
    const int64_t us = now_us();
    for (auto &[fd, each] : readers_)
        if (follower *one = each.with.following())
            one->tell(what, us, members);
}

void watch::policies_changed() {
    flows_.note_all();
    tell("policies", "");
}

void watch::look_around(int64_t now_ms) {
    if (!are_events_followed()) {
        seen_outside_.reset();
        return;
    }
    if (now_ms < look_due_ms_)
        return;
    look_due_ms_ = now_ms + LOOK_MS;
    outside now = around_.look_outside();
    if (seen_outside_)
        tell_changes(*seen_outside_, now);
    seen_outside_ = std::move(now);
}

void watch::tell_changes(const outside &before, const outside &now) {
    const auto state = [](const char *word, const std::string &interface = "") {
        std::string members = std::string(",\"state\":\"") + word + '"';
        if (!interface.empty())
            append_json_text(members += ",\"interface\":", interface);
        return members;
    };
    if (now.has_daemon != before.has_daemon)
        tell("daemon", state(now.has_daemon ? "back" : "gone"));
    if (now.gate != before.gate)
        tell("gate", state(now.gate.c_str()));
    for (const std::string &name : now.interfaces)
        if (std::ranges::count(before.interfaces, name) == 0)
            tell("gate", state("attached", name));
    for (const std::string &name : before.interfaces)
        if (std::ranges::count(now.interfaces, name) == 0)
            tell("gate", state("gone", name));
}

void watch::stop() {
    flows_.stop();
    for (auto &[fd, each] : readers_)
        if (follower *one = each.with.following())
            one->hurry();
}

bool watch::is_busy() const {
    return std::ranges::any_of(readers_,
                               [](const auto &each) { return !each.second.with.has_all(); });
}

} // namespace avcore
