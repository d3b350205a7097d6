// The watch socket's other end: one connection to avcore, on which it is asked and tells.
//
// A loop waits for descriptor() and calls take() until it has nothing; nothing there blocks. Who
// has nothing else to do calls wait(). The greeting comes before everything else and is kept.
//
// Whatever is wrong with the connection is a no_watch, and then it is of no use any more: another
// one may be made. Messages that can't be understood are passed over and counted.
#pragma once

#include "avwatch/client/messages.h"
#include "shared/unique_fd.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace avwatch {

inline constexpr char WATCH_SOCKET[] = "/run/jorn/watch.sock";

// Of what the socket says; of a line its end counts, too.
inline constexpr size_t TOLD_LINE_MAX = 65'536;
inline constexpr size_t ASKED_LINE_MAX = 4'096;

// As many are taken before a loop has its others served.
inline constexpr int MESSAGES_AT_ONCE = 1'000;

enum class question { flows, clients, counts, gate };

// What would be said of a flow that may not be there yet: one of either pair is needed.
struct profile_question {
    std::string client, client_mac;
    std::string server, name;
    std::optional<uint64_t> rule; // that a flow of the client's has
};

// All that are there must fit.
struct watch_filter {
    std::string client; // a MAC address or an IP address
    std::string name;   // a part of the application's or the host's
    std::string application;
    std::string verdict;
    uint64_t since_us = 0;
};

struct following {
    bool flows = true;
    bool events = false;
    bool brief = false;                          // what is counted, and for whom
    uint32_t every_ms = 1'000;                   // 200 to 60,000
    std::optional<int64_t> ended_within_ms = {}; // of flows that were over before, too
    watch_filter filter;
};

class watch_client {
public:
    // Connects, and waits for nothing. Throws no_watch, and refused where the user may not: both
    // say what to do.
    explicit watch_client(const std::string &path);

    // What is sent, avcore answers in turn; at most 16 questions wait there. Returns the id that
    // the answers have. Throws refused where the filter is too long to be sent.
    uint32_t ask(question asked, const watch_filter &filter = {});
    uint32_t ask(const profile_question &asked);
    uint32_t follow(const following &wanted);

    int descriptor() const { return socket_.get(); } // to be read
    // The next message, or nothing until there is more to read. Throws no_watch: the connection
    // has ended, what greets is no watch socket or one of another version, or a line is too long.
    std::optional<message> take();
    // What is there, MESSAGES_AT_ONCE at most: `told` gets each message, and `greeted` the
    // greeting, once and before them. Returns whether there may be more. Throws as take() does.
    template <typename Greeted, typename Told>
    bool take_some(const Greeted &greeted, const Told &told) {
        for (int i = 0; i < MESSAGES_AT_ONCE; ++i) {
            const std::optional<message> next = take();
            if (greeting_ && !std::exchange(is_greeting_told_, true))
                greeted(*greeting_);
            if (!next)
                return false;
            told(*next);
        }
        return true;
    }
    // The next one, which may take that long, or forever. Throws no_watch, too, when it takes
    // longer.
    message wait(std::optional<std::chrono::milliseconds> patience = {});

    // Nothing until it is there, and there whenever take() has returned a message.
    const std::optional<greeting_record> &greeting() const { return greeting_; }
    const greeting_record &wait_for_greeting(std::chrono::milliseconds patience);

    uint64_t passed_over() const { return passed_over_; }

private:
    uint32_t send(nlohmann::json line);
    void await(std::optional<std::chrono::steady_clock::time_point> deadline) const;
    void receive();
    std::optional<std::string_view> next_line();
    std::optional<message> next_message();
    void greet(std::string_view line);
    [[noreturn]] void fail(const std::string &what) const;

    std::string path_;
    unique_fd socket_;
    std::string received_;
    size_t taken_ = 0;    // of received_
    size_t searched_ = 0; // and without a line's end up to there
    uint32_t last_id_ = 0;
    std::optional<greeting_record> greeting_;
    bool is_greeting_told_ = false; // by take_some
    uint64_t passed_over_ = 0;
};

} // namespace avwatch
