#include "avwatch/export/subcommand.h"

#include "avcore/base/ip_address.h"
#include "avcore/base/loop.h"
#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/complain.h"
#include "avwatch/base/failure.h"
#include "avwatch/client/watch_client.h"
#include "avwatch/export/application_ids.h"
#include "avwatch/export/due_flows.h"
#include "avwatch/export/interfaces.h"
#include "avwatch/export/record_maker.h"
#include "avwatch/history/ledger.h"
#include "shared/command_line.h"
#include "shared/unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>
#include <variant>

namespace avwatch {
namespace {

constexpr int64_t TICK_MS = 1'000;
constexpr int LONGEST_STALL_MS = 1'000; // of a reader, once the end was asked for

struct export_request {
    std::string active_s = "10", inactive_s = "10";
    bool as_json = false;
};

std::string what_is_wrong_with_seconds(const std::string &value) {
    uint32_t seconds = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), seconds);
    const bool is_good = error == std::errc() && end == value.data() + value.size() &&
                         seconds > 0 && seconds <= TIMEOUT_S_MAX;
    std::string wrong;
    if (!is_good)
        wrong.append("seconds, from 1 to ").append(std::to_string(TIMEOUT_S_MAX));
    return wrong;
}

std::string mac_text(const exported_record::mac_address &mac) {
    std::array<char, sizeof "00:00:00:00:00:00"> text = {};
    snprintf(text.data(), text.size(), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5]);
    return text.data();
}

const char *end_text(uint8_t end_reason) {
    constexpr const char *words[] = {"", "inactive", "active", "ended", "forced", "no room"};
    return words[end_reason];
}

const char *status_text(uint8_t status) {
    if (status == DROPPED_BY_POLICY)
        return "denied";
    return status == DROPPED_BY_LIMIT ? "limited" : "forwarded";
}

const char *event_text(uint8_t event) {
    constexpr const char *words[] = {"", "created", "deleted", "denied", "", "updated"};
    return words[event];
}

// Lines on standard output. A reader that stalls holds up everything but the end.
class printed_lines {
public:
    // `ending` is readable from when on the program is to end.
    explicit printed_lines(int ending) : ending_(ending) {}

    void add(const std::string &line) {
        text_.append(line).append(1, '\n');
        write_out(PIPE_BUF - 1);
    }

    // All but so many bytes.
    void write_out(size_t left) {
        bool ends = false;
        while (text_.size() > left) {
            pollfd awaited[] = {{STDOUT_FILENO, POLLOUT, 0}, {ending_, POLLIN, 0}};
            poll(awaited, ends ? 1 : 2, ends ? LONGEST_STALL_MS : -1);
            if (awaited[0].revents != 0)
                write_some();
            else if (ends)
                throw refused("standard output isn't read: the last records are left out");
            ends = ends || awaited[1].revents != 0;
        }
    }

private:
    // As much as a pipe that can be written to takes without a wait.
    void write_some() {
        const ssize_t count =
            write(STDOUT_FILENO, text_.data(), std::min<size_t>(text_.size(), PIPE_BUF));
        if (count < 0 && errno != EAGAIN)
            throw refused(std::string("standard output: ") + strerror(errno));
        text_.erase(0, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }

    const int ending_;
    std::string text_;
};

// Flows as they are told, and a line for each record that is due. An avcore that goes is waited
// for, but for the first one.
class printed_flows {
public:
    printed_flows(const invocation &asked, const export_request &wanted, names_kept names,
                  int ending)
        : lines_(ending),
          names_(names),
          watch_socket_(asked.watch_socket),
          flows_({{std::stoll(wanted.active_s) * 1'000, std::stoll(wanted.inactive_s) * 1'000}},
                 {[this](size_t, const application_name &name, uint64_t engine_number) {
                      return ids_.id_of(name, engine_number, names_);
                  },
                  [this](const std::string &name) { return interfaces_.number_of(name); }}) {
        numbers_.reserve(UINT32_MAX);
        connect(std::nullopt);
    }

    int descriptor() const { return avcore_ ? avcore_->descriptor() : -1; }
    bool has_more() const { return has_more_; }
    int64_t due_ms() const { return due_ms_; }

    void listen(int64_t now_ms) {
        flows_.set_clock(avcore::wall_ahead_us());
        try {
            has_more_ = avcore_->take_some(
                [&](const greeting_record &greeting) { greet(greeting, now_ms); },
                [&](const message &told) {
                    std::visit([&](const auto &what) { take(what, now_ms); }, told.what);
                });
        } catch (const no_watch &gone) {
            disconnect(gone.what());
        }
    }

    void print(int64_t now_ms, bool all) {
        due_ms_ = now_ms + TICK_MS;
        if (!avcore_ && !all)
            connect_again(now_ms);
        flows_.set_clock(avcore::wall_ahead_us());
        interfaces_.look_again(now_ms);
        numbers_.pass(now_ms);
        flows_.give(now_ms, all, [this](size_t, const flow_part &part) {
            flow_part usable = part;
            usable.application = ids_.usable(part.application);
            print(usable);
            return true;
        });
        counted_.pass(now_ms);
        counted_.written(); // there is nobody who keeps the sums, and the numbers
        numbers_.written();
        lines_.write_out(0);
    }

private:
    void connect(std::optional<int64_t> ended_within_ms) {
        avcore_.emplace(watch_socket_);
        avcore_->follow({.flows = true,
                         .events = false,
                         .every_ms = flows_.heard_every_ms(),
                         .ended_within_ms = ended_within_ms,
                         .filter = {}});
    }

    void connect_again(int64_t now_ms) {
        try {
            connect(counted_.ends_to_ask_for_ms(now_ms));
        } catch (const std::runtime_error &error) {
            disconnect(error.what());
        }
    }

    void greet(const greeting_record &greeting, int64_t now_ms) {
        const std::string epoch = greeting.epoch();
        flows_.connected(epoch, counted_.heard_ms() < 0 ? now_ms : counted_.heard_ms());
        counted_.connected(epoch);
        if (!std::exchange(avcore_trouble_, {}).empty())
            complain("avcore is heard again");
    }

    void disconnect(const std::string &why) {
        if (std::exchange(avcore_trouble_, why) != why)
            complain(why);
        avcore_.reset();
        has_more_ = false;
        counted_.disconnected();
    }

    // What flows had before the first look isn't this run's.
    void take(const flow_record &flow, int64_t now_ms) {
        std::optional<ledger::growth> more = counted_.take({flow.id,
                                                            flow.client,
                                                            flow.client_mac,
                                                            {},
                                                            {},
                                                            NO_VERDICT,
                                                            counts_in(flow),
                                                            !flow.ended.empty()},
                                                           now_ms);
        counted_.heard(now_ms);
        if (more && !is_listed_)
            more->counts = {};
        if (more)
            flows_.take(flow, *more, now_ms);
    }
    void take(const count_record &count, int64_t now_ms) {
        const std::optional<ledger::growth> more =
            counted_.take_counts(count.id, counts_in(count), !count.ended.empty(), now_ms);
        counted_.heard(now_ms);
        if (more)
            flows_.take(count, *more, now_ms);
    }
    void take(const sum_record &sum, int64_t now_ms) { flows_.take(sum, now_ms); }
    void take(const listing_end &, int64_t now_ms) {
        is_listed_ = true;
        counted_.listed(now_ms);
    }
    void take(const answer_error &error, int64_t) {
        throw refused("avcore doesn't tell: " + error.text);
    }
    void take(const auto & /*other*/, int64_t) {}

    void print(const flow_part &part) {
        const interfaces::interface &at = interfaces_.at(part.facts.interface);
        for (const exported_record &each : records_of(part, at, {}))
            lines_.add(to_line(object_of(each, part, at)));
    }

    nlohmann::ordered_json object_of(const exported_record &record, const flow_part &part,
                                     const interfaces::interface &at) const {
        nlohmann::ordered_json object;
        object["direction"] = record.from_client ? "up" : "down";
        if (part.facts.is_ip) {
            object["source"] = avcore::ip_address(record.source).text();
            object["destination"] = avcore::ip_address(record.destination).text();
            object["source_port"] = record.source_port;
            object["destination_port"] = record.destination_port;
            object["protocol"] = record.protocol;
            object["dscp"] = record.dscp;
        }
        object["packets"] = record.packets;
        object["bytes"] = record.bytes;
        object["dropped"] = record.dropped;
        object["begun_us"] = part.begun_us;
        object["ended_us"] = part.ended_us;
        object["end"] = end_text(record.end_reason);
        object["status"] = status_text(record.status);
        object["event"] = event_text(record.event);
        object["application"] = ids_.name_of(record.application);
        if (is_known(record.station))
            object["station"] = mac_text(record.station);
        if (is_known(record.access_point))
            object["access_point"] = mac_text(record.access_point);
        if (!at.name.empty())
            object["interface"] = at.name;
        object["utp"] = record.utp;
        if (!record.reason.empty())
            object["reason"] = record.reason;
        return object;
    }

    printed_lines lines_;
    const names_kept names_;
    const std::string watch_socket_;
    std::optional<watch_client> avcore_;
    ledger counted_{names_kept::none};
    application_numbers numbers_; // of this run alone
    application_ids ids_{numbers_};
    interfaces interfaces_;
    due_flows flows_;
    std::string avcore_trouble_;
    bool is_listed_ = false; // once
    bool has_more_ = false;
    int64_t due_ms_ = 0;
};

int print_records(const invocation &asked, const export_request &wanted) {
    if (!wanted.as_json)
        throw refused("the records are printed as lines of JSON: say --json; [[export]] in the "
                      "configuration has \"avwatch serve\" send them to a collector");
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    const unique_fd signals(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
    printed_flows flows(asked, wanted, read_settings(asked.settings_file).history.names,
                        signals.get());
    bool goes_on = true;
    avcore::loop loop;
    loop.add(
        {.descriptor = [&] { return signals.get(); }, .serve = [&](int64_t) { goes_on = false; }});
    loop.add(
        {.descriptor = [&] { return flows.descriptor(); },
         .due_ms = [&](int64_t now_ms) { return flows.has_more() ? now_ms : avcore::NEVER_MS; },
         .serve = [&](int64_t now_ms) { flows.listen(now_ms); }});
    loop.add({.due_ms = [&](int64_t) { return flows.due_ms(); },
              .serve = [&](int64_t now_ms) { flows.print(now_ms, false); }});
    while (goes_on)
        loop.wait_and_serve(avcore::monotonic_ms());
    flows.print(avcore::monotonic_ms(), true);
    return STATUS_DONE;
}

} // namespace

void add_export(CLI::App &app, invocation &asked) {
    subcommand command(
        app, "export", "What flows have from now on, as records for programs",
        "A line for each direction of a flow when it ends, goes on for long or is silent, as\n"
        "collectors get it of \"avwatch serve\" by [[export]] in the configuration.");
    const auto wanted = std::make_shared<export_request>();
    command.add_flag("--json", wanted->as_json, "A JSON object a line");
    command.add_option("--active-timeout", wanted->active_s, "How long a flow is summed up",
                       {.type_name = "SECONDS",
                        .shows_default = true,
                        .what_is_wrong_with = what_is_wrong_with_seconds});
    command.add_option("--inactive-timeout", wanted->inactive_s, "How long it may be silent",
                       {.type_name = "SECONDS",
                        .shows_default = true,
                        .what_is_wrong_with = what_is_wrong_with_seconds});
    command.callback([&asked, wanted] {
        asked.action = [&asked, wanted] { return print_records(asked, *wanted); };
    });
}

} // namespace avwatch
