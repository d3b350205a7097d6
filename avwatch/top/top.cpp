#include "avwatch/top/top.h"

#include "avcore/base/loop.h"
#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/failure.h"
#include "avwatch/present/present.h"
#include "avwatch/present/watcher.h"
#include "avwatch/top/model.h"
#include "avwatch/top/terminal.h"
#include "avwatch/top/what_else.h"
#include "shared/command_line.h"
#include "shared/unique_fd.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace avwatch {
namespace {

using avcore::NEVER_MS;

// Those that end it, and the one by which the terminal says that its size has changed.
unique_fd signals_of_terminal() {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int each : {SIGINT, SIGTERM, SIGHUP, SIGWINCH})
        sigaddset(&taken, each);
    sigprocmask(SIG_BLOCK, &taken, nullptr);
    unique_fd fd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd.valid())
        throw refused(std::string("signals: ") + strerror(errno));
    return fd;
}

class top_program {
public:
    top_program(const invocation &asked, const settings &read)
        : shown_(read.aliases, read.history.names, WATCH_EVERY_MS),
          watcher_(asked.watch_socket, shown_),
          signals_(signals_of_terminal()),
          asker_(asked),
          model_(shown_, asked.utc) {
        watcher_.connect(avcore::monotonic_ms());
        screen_.emplace();
        loop_.add({.descriptor = [this] { return signals_.get(); },
                   .serve = [this](int64_t) { take_signals(); }});
        loop_.add({.descriptor = [] { return terminal::descriptor(); },
                   .serve = [this](int64_t) { take_keys(); }});
        loop_.add(
            {.descriptor = [this] { return watcher_.descriptor(); },
             .due_ms = [this](int64_t now_ms) { return watcher_.has_more() ? now_ms : NEVER_MS; },
             .serve = [this](int64_t now_ms) { watcher_.listen(now_ms); }});
        loop_.add({.descriptor = [this] { return asker_.descriptor(); },
                   .serve = [this](int64_t) { take_answer(); }});
        loop_.add({.due_ms = [this](int64_t) { return watcher_.due_ms(); },
                   .serve = [this](int64_t now_ms) { watcher_.serve(now_ms); }});
    }

    void run() {
        while (goes_on_) {
            if (is_stale())
                draw();
            loop_.wait_and_serve(avcore::monotonic_ms());
        }
    }

private:
    // Messages alone wait for the next tick to be shown.
    bool is_stale() const {
        return has_input_ || drawn_ticks_ != shown_.ticks() || drawn_told_ != shown_.is_told() ||
               drawn_trouble_ != watcher_.trouble();
    }

    void draw() {
        has_input_ = false;
        drawn_ticks_ = shown_.ticks();
        drawn_told_ = shown_.is_told();
        drawn_trouble_ = watcher_.trouble();
        screen_->draw(model_.draw(screen_->size(), avcore::monotonic_ms(), drawn_trouble_));
        if (const std::optional<flow_record> about = model_.take_question())
            ask(*about);
    }

    void take_signals() {
        signalfd_siginfo taken = {};
        while (read(signals_.get(), &taken, sizeof taken) == ssize_t{sizeof taken}) {
            if (taken.ssi_signo == SIGWINCH)
                screen_->resize();
            else
                goes_on_ = false;
        }
        has_input_ = true;
    }

    // Each is of what the one before it has led to.
    void take_keys() {
        while (const std::optional<pressed_key> key = screen_->next_key()) {
            goes_on_ = goes_on_ && model_.press(*key);
            draw();
        }
        goes_on_ = goes_on_ && !screen_->has_ended();
    }

    void ask(const flow_record &about) {
        const bool is_asked = asker_.ask(about);
        model_.take_answer(
            about.id, {{"without it", is_asked ? "is being found out" : "can't be found out now"}});
    }

    void take_answer() {
        if (auto said = asker_.answer()) {
            model_.take_answer(asker_.flow_id(), std::move(*said));
            has_input_ = true;
        }
    }

    present shown_;
    watcher watcher_;
    const unique_fd signals_;
    what_else_asker asker_;
    top_model model_;
    std::optional<terminal> screen_;
    avcore::loop loop_;
    bool goes_on_ = true;
    bool has_input_ = true;
    uint64_t drawn_ticks_ = 0;
    bool drawn_told_ = false;
    std::string drawn_trouble_;
};

int show_top(const invocation &asked) {
    top_program(asked, read_settings(asked.settings_file)).run();
    return STATUS_DONE;
}

} // namespace

void add_top(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "top", "Who takes what now, on the terminal, every second",
        "Clients, applications or flows by rate. Enter leads from a client to its\n"
        "applications, to its flows, and says why one is passed or denied. Keys: \"?\".\n"
        "NO_COLOR in the environment, or a terminal without, does without colours.");
    command.callback([&asked] { asked.action = [&asked] { return show_top(asked); }; });
}

} // namespace avwatch
