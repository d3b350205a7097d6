#include "avwatch/serve/recorder.h"

#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/complain.h"
#include "avwatch/base/failure.h"

#include <algorithm>
#include <ctime>
#include <sys/stat.h>
#include <utility>
#include <variant>

namespace avwatch {
namespace {

using avcore::monotonic_ms;
using avcore::NEVER_MS;

constexpr int64_t CONNECT_EVERY_MS = 2'000;
constexpr int64_t ASK_EVERY_MS = 10'000;
constexpr int64_t SILENT_MS = 3 * ASK_EVERY_MS; // who doesn't answer tells nothing
constexpr int64_t CLIENTS_EVERY_MS = 60'000;
constexpr int64_t EXPORTS_EVERY_MS = 5'000;
constexpr int64_t PASS_EVERY_MS = 5'000;
constexpr int64_t RETRY_MS = 10'000; // to write
constexpr int64_t TIDY_AT_ONCE_MS = 50;
constexpr int64_t TIDY_EVERY_MS = 500; // while there is more
constexpr int FINISH_TRIES = 50;       // each waits a moment for who is at the file

uint8_t verdict_of(const std::string &word) {
    const auto *at = std::find(std::begin(VERDICT_WORDS), std::end(VERDICT_WORDS), word);
    return at != std::end(VERDICT_WORDS) ? static_cast<uint8_t>(at - std::begin(VERDICT_WORDS))
                                         : uint8_t{NO_VERDICT};
}

ino_t inode_of(const std::string &path) {
    struct stat found = {};
    return stat(path.c_str(), &found) == 0 ? found.st_ino : 0;
}

} // namespace

struct recorder::taker {
    recorder &to;
    std::optional<uint32_t> id;
    int64_t now_ms;

    // Without exports avcore is brief, if it can be.
    void operator()(const brief_record &flow) const { take(flow, flow.named_by); }
    void operator()(const flow_record &flow) const {
        const bool is_exported = to.exports_.has_any();
        const application_name known = is_exported ? known_name(flow) : application_name();
        const std::optional<ledger::growth> more = take(flow, flow.why.named_by);
        if (more && is_exported)
            to.exports_.flows().take(flow, *more, now_ms, known);
    }
    // After a restart of both avcore may know no more of the flow than its counts.
    application_name known_name(const flow_record &flow) const {
        const application_name *name =
            flow.application.empty() ? to.ledger_.name_of(flow.id) : nullptr;
        return name != nullptr ? *name : application_name();
    }
    template <typename Record>
    std::optional<ledger::growth> take(const Record &flow, const std::string &named_by) const {
        return to.ledger_.take({flow.id, flow.client, flow.client_mac, flow.application, named_by,
                                verdict_of(flow.verdict), counts_in(flow), !flow.ended.empty()},
                               now_ms);
    }
    void operator()(const count_record &count) const {
        const std::optional<ledger::growth> more =
            to.ledger_.take_counts(count.id, counts_in(count), !count.ended.empty(), now_ms);
        if (more && to.exports_.has_any())
            to.exports_.flows().take(count, *more, now_ms);
    }
    void operator()(const sum_record &sum) const {
        to.ledger_.take_sum({{},
                             sum.client,
                             sum.client_mac,
                             sum.application,
                             {},
                             verdict_of(sum.verdict),
                             counts_in(sum),
                             true},
                            sum.flows);
        if (to.exports_.has_any())
            to.exports_.flows().take(sum, now_ms);
    }
    void operator()(const listing_end &) const { to.ledger_.listed(now_ms); }
    void operator()(const client_record &client) const {
        if (to.clients_.size() < CLIENTS_MAX)
            to.clients_.push_back(client);
    }
    void operator()(const answer_end &) const {
        if (id == to.clients_asked_)
            to.heard_clients_ = std::exchange(to.clients_, {});
    }
    void operator()(const counts_record &counts) const { to.health_.counts = counts; }
    void operator()(const gate_state &gate) const { to.health_.gate = numbers_in(gate.said); }
    void operator()(const answer_error &error) const {
        if (id == to.follow_asked_ || !id)
            throw no_watch("avcore at " + to.watch_socket_ + " refuses: " + error.text);
    }
    void operator()(const auto & /*other*/) const {}
};

recorder::recorder(const history_settings &settings, std::string watch_socket, exports &others)
    : settings_(settings),
      watch_socket_(std::move(watch_socket)),
      exports_(others),
      lock_(lock_history(settings.file)),
      ledger_(settings.names) {
    open_history(monotonic_ms());
}

void recorder::listen() {
    const int64_t now_ms = monotonic_ms();
    if (exports_.has_any())
        exports_.look_at_clocks();
    try {
        has_more_ =
            avcore_->take_some([&](const greeting_record &greeting) { greet(greeting, now_ms); },
                               [&](const message &told) {
                                   heard_ms_ = now_ms;
                                   std::visit(taker{*this, told.id, now_ms}, told.what);
                                   ledger_.heard(now_ms);
                               });
    } catch (const no_watch &gone) {
        disconnect(gone.what());
    }
    if (health_.writes_history && exports_.flows().is_crowded())
        write_due_ms_ = now_ms;
}

void recorder::serve(int64_t now_ms) {
    if (now_ms >= connect_due_ms_)
        connect(now_ms);
    if (now_ms >= ask_due_ms_)
        ask();
    if (now_ms >= write_due_ms_)
        write_and_send(now_ms);
    if (now_ms >= tidy_due_ms_)
        tidy(now_ms);
}

void recorder::finish() {
    if (exports_.has_any())
        ledger_.release_all(); // so that all of it counts under the names that collectors are told
    bool is_locked = true;
    for (int tries = 0; tries < FINISH_TRIES && is_locked; ++tries)
        is_locked = !write(monotonic_ms());
    if (!exports_.has_any())
        return;
    if (is_locked) {
        complain("the history is locked: collectors get the last counts after the next start");
        return;
    }
    exports_.finish();
    exports_due_ms_ = 0;
    write(monotonic_ms());
}

// What isn't stored would be counted, and told, once more after a restart, so it waits while
// another one is at the file. Where that is full or broken collectors are told nevertheless.
void recorder::write_and_send(int64_t now_ms) {
    if (write(now_ms) && exports_.has_any())
        exports_.send(now_ms);
}

bool recorder::write(int64_t now_ms) {
    if (now_ms >= pass_due_ms_) {
        ledger_.pass(now_ms);
        pass_due_ms_ = now_ms + PASS_EVERY_MS;
    }
    write_due_ms_ = now_ms + RETRY_MS;
    health_.writes_history = false;
    try {
        if ((!store_ || is_replaced()) && !open_history(now_ms))
            return true;
        store_->write(ledger_, time(nullptr), now_ms);
        if (!heard_clients_.empty())
            store_->write_clients(heard_clients_);
        heard_clients_ = {};
        write_exports(now_ms);
        health_.writes_history = true;
        health_.written_s = time(nullptr);
        write_due_ms_ = now_ms + int64_t{settings_.commit_s} * 1'000;
        tidy_due_ms_ = now_ms;
        if (!std::exchange(history_trouble_, {}).empty())
            complain("the history can be written again");
    } catch (const database_error &error) {
        complain_of(error);
        return !error.is_locked();
    }
    return true;
}

std::string recorder::metrics() const {
    health now = health_;
    now.hears_avcore = is_greeted() && monotonic_ms() - heard_ms_ < SILENT_MS;
    now.open_flows = ledger_.open();
    now.uncounted = ledger_.uncounted();
    now.exports = exports_.counts();
    now.passed_over = avcore_ ? avcore_->passed_over() : 0;
    return metrics_text(store_ ? store_->committed() : committed_, now,
                        {settings_.names, settings_.client_metrics});
}

void recorder::write_exports(int64_t now_ms) {
    store_->write(exports_.numbers());
    if (now_ms < exports_due_ms_)
        return;
    exports_due_ms_ = now_ms + EXPORTS_EVERY_MS;
    std::vector<export_counts> counts = exports_.counts();
    if (exports_written_ == counts)
        return;
    store_->write(counts);
    exports_written_ = std::move(counts);
}

// Also in the place of one that was moved away: there what is open is written anew.
bool recorder::open_history(int64_t now_ms) {
    if (store_)
        committed_ = store_->committed();
    store_.reset();
    std::string trouble;
    try {
        store_.emplace(settings_);
        if (is_restored_)
            store_->replace_contents(ledger_, committed_);
        else
            store_->restore(ledger_, now_ms);
        exports_written_.reset();
        if (is_restored_)
            exports_.numbers().forget_rows();
        else
            store_->restore(exports_.numbers());
        is_restored_ = true;
        file_inode_ = inode_of(settings_.file);
        return true;
    } catch (const database_error &error) {
        store_.reset();
        if (is_restored_ && error.is_locked()) // for a moment
            throw;
        trouble = error.what();
    } catch (const foreign_history &other) {
        if (!is_restored_)
            throw;
        trouble = other.what(); // put in the history's place
    }
    store_.reset();
    say_once(history_trouble_,
             trouble + (is_restored_ ? "; what is counted waits in memory"
                                     : "; nothing is counted until it can be read"));
    return false;
}

bool recorder::is_replaced() const {
    return inode_of(settings_.file) != file_inode_;
}

void recorder::connect(int64_t now_ms) {
    connect_due_ms_ = now_ms + CONNECT_EVERY_MS;
    if (!is_restored_)
        return;
    try {
        avcore_.emplace(watch_socket_);
        follow_asked_ =
            avcore_->follow({.flows = true,
                             .events = false,
                             .brief = !exports_.has_any(),
                             .every_ms = exports_.every_ms(),
                             .ended_within_ms = ledger_.ends_to_ask_for_ms(monotonic_ms()),
                             .filter = {}});
        connect_due_ms_ = NEVER_MS;
    } catch (const std::runtime_error &error) {
        disconnect(error.what());
    }
}

void recorder::greet(const greeting_record &greeting, int64_t now_ms) {
    ledger_.connected(greeting.epoch());
    exports_.flows().connected(greeting.epoch(), ledger_.heard_ms());
    ask_due_ms_ = clients_due_ms_ = now_ms;
    if (!std::exchange(avcore_trouble_, {}).empty())
        complain("avcore is heard again");
}

void recorder::ask() {
    const int64_t now_ms = monotonic_ms();
    ask_due_ms_ = is_greeted() ? now_ms + ASK_EVERY_MS : NEVER_MS;
    if (!is_greeted())
        return;
    try {
        avcore_->ask(question::counts);
        avcore_->ask(question::gate);
        if (now_ms >= clients_due_ms_) {
            clients_due_ms_ = now_ms + CLIENTS_EVERY_MS;
            clients_.clear();
            clients_asked_ = avcore_->ask(question::clients);
        }
    } catch (const no_watch &gone) {
        disconnect(gone.what());
    }
}

void recorder::disconnect(const std::string &why) {
    say_once(avcore_trouble_, why);
    avcore_.reset();
    has_more_ = false;
    ledger_.disconnected();
    connect_due_ms_ = monotonic_ms() + CONNECT_EVERY_MS;
    ask_due_ms_ = NEVER_MS;
}

// A little at a time, however seldom something is written.
void recorder::tidy(int64_t now_ms) {
    tidy_due_ms_ = NEVER_MS;
    if (!store_)
        return;
    try {
        while (tidy_due_ms_ == NEVER_MS && store_->tidy()) {
            if (monotonic_ms() - now_ms >= TIDY_AT_ONCE_MS)
                tidy_due_ms_ = monotonic_ms() + TIDY_EVERY_MS;
        }
        health_.history_bytes = store_->size_bytes();
    } catch (const database_error &error) {
        complain_of(error);
    }
}

// One that is locked is for a moment, by "forget" or somebody's shell.
void recorder::complain_of(const database_error &error) {
    if (error.is_locked())
        write_due_ms_ = monotonic_ms() + std::min(int64_t{settings_.commit_s} * 1'000, RETRY_MS);
    else
        say_once(history_trouble_, std::string(error.what()) +
                                       "; what is counted waits in memory until it can be written");
}

void recorder::say_once(std::string &said, const std::string &what) const {
    if (std::exchange(said, what) != what)
        complain(what);
}

} // namespace avwatch
