#include "avwatch/client/watch_client.h"

#include "avwatch/base/failure.h"
#include "shared/json_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace avwatch {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char *WORDS[] = {"flows", "clients", "counts", "gate"}; // of question

unique_fd connect_to(const std::string &path) {
    sockaddr_un address = {};
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw refused("the path of the watch socket has 1 to " +
                      std::to_string(sizeof address.sun_path - 1) + " characters: \"" + path + '"');
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    unique_fd connected(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connected.valid())
        throw refused(std::string("a socket can't be made: ") + strerror(errno));
    if (connect(connected.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return connected;
    const int error = errno;
    if (error == EACCES || error == EPERM)
        throw refused("you may not use the watch socket " + path +
                      ": run avwatch as root, or as a user of the socket's group");
    if (error == ENOENT || error == ECONNREFUSED)
        throw no_watch("nobody is at the watch socket " + path +
                       ": start avcore, or name its socket with --watch-socket");
    if (error == EAGAIN)
        throw no_watch("avcore at " + path + " takes no connection: it may be busy, try again");
    if (error == EPROTOTYPE)
        throw no_watch(path + " isn't a watch socket: name avcore's with --watch-socket");
    throw no_watch("the watch socket " + path + ": " + strerror(error));
}

// Those that aren't empty.
void put_texts(json &line,
               std::initializer_list<std::pair<const char *, const std::string &>> texts) {
    for (const auto &[key, text] : texts) {
        if (!text.empty())
            line[key] = text;
    }
}

json object_of(const watch_filter &filter) {
    json line = json::object();
    put_texts(line, {{"client", filter.client},
                     {"name", filter.name},
                     {"application", filter.application},
                     {"verdict", filter.verdict}});
    if (filter.since_us != 0)
        line["since_us"] = filter.since_us;
    return line;
}

} // namespace

watch_client::watch_client(const std::string &path) : path_(path), socket_(connect_to(path)) {}

uint32_t watch_client::ask(question asked, const watch_filter &filter) {
    json line = object_of(filter);
    line["ask"] = WORDS[static_cast<size_t>(asked)];
    return send(std::move(line));
}

uint32_t watch_client::ask(const profile_question &asked) {
    json line = {{"ask", "profile"}};
    put_texts(line, {{"client", asked.client},
                     {"client_mac", asked.client_mac},
                     {"server", asked.server},
                     {"name", asked.name}});
    if (asked.rule)
        line["rule"] = *asked.rule;
    return send(std::move(line));
}

uint32_t watch_client::follow(const following &wanted) {
    json line = object_of(wanted.filter);
    line["follow"] = json::array();
    if (wanted.flows)
        line["follow"].push_back("flows");
    if (wanted.events)
        line["follow"].push_back("events");
    if (wanted.brief)
        line["brief"] = true;
    line["every_ms"] = wanted.every_ms;
    if (wanted.ended_within_ms)
        line["ended_within_ms"] = *wanted.ended_within_ms;
    return send(std::move(line));
}

uint32_t watch_client::send(json line) {
    line["id"] = ++last_id_;
    const std::string bytes = json_text(line) + '\n';
    if (bytes.size() > ASKED_LINE_MAX)
        throw refused("what is looked for is longer than avcore reads, " +
                      std::to_string(ASKED_LINE_MAX) + " bytes");
    // The kernel keeps more than a few questions. What doesn't fit nobody reads.
    const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    // Who closed it may have said why.
    if (sent < 0 && errno != EPIPE && errno != ECONNRESET)
        fail(errno == EAGAIN ? "doesn't read" : strerror(errno));
    if (sent >= 0 && static_cast<size_t>(sent) < bytes.size())
        fail("doesn't read");
    return last_id_;
}

std::optional<message> watch_client::take() {
    std::optional<message> next = next_message();
    if (next)
        return next;
    receive();
    return next_message();
}

message watch_client::wait(std::optional<milliseconds> patience) {
    std::optional<steady_clock::time_point> deadline;
    if (patience)
        deadline = steady_clock::now() + *patience;
    while (true) {
        if (std::optional<message> next = take())
            return std::move(*next);
        await(deadline);
    }
}

const greeting_record &watch_client::wait_for_greeting(milliseconds patience) {
    const auto deadline = steady_clock::now() + patience;
    while (!greeting_) {
        if (const std::optional<std::string_view> line = next_line()) {
            greet(*line);
        } else {
            await(deadline);
            receive();
        }
    }
    return *greeting_;
}

// Until there is something to read.
void watch_client::await(std::optional<steady_clock::time_point> deadline) const {
    int left_ms = -1;
    if (deadline) {
        const auto left = std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count();
        if (left <= 0)
            fail("doesn't answer");
        left_ms = static_cast<int>(std::min<int64_t>(left, 3'600'000));
    }
    pollfd waiting = {socket_.get(), POLLIN, 0};
    if (poll(&waiting, 1, left_ms) == 0)
        fail("doesn't answer");
}

// Reads once. Behind it there is no more than one piece beside a line that isn't whole yet.
void watch_client::receive() {
    std::array<char, TOLD_LINE_MAX> piece;
    const ssize_t got = recv(socket_.get(), piece.data(), piece.size(), 0);
    if (got == 0)
        fail("has ended the connection");
    if (got > 0)
        received_.append(piece.data(), static_cast<size_t>(got));
    else if (errno != EAGAIN && errno != EINTR)
        fail(strerror(errno));
}

// Stands until the next call.
std::optional<std::string_view> watch_client::next_line() {
    const size_t end = received_.find('\n', searched_);
    if (end == std::string::npos) {
        received_.erase(0, taken_);
        taken_ = 0;
        searched_ = received_.size();
        if (received_.size() >= TOLD_LINE_MAX)
            fail("says a line longer than " + std::to_string(TOLD_LINE_MAX) + " bytes");
        return std::nullopt;
    }
    const auto line = std::string_view(received_).substr(taken_, end - taken_);
    if (line.size() >= TOLD_LINE_MAX)
        fail("says a line longer than " + std::to_string(TOLD_LINE_MAX) + " bytes");
    taken_ = searched_ = end + 1;
    return line;
}

std::optional<message> watch_client::next_message() {
    while (const std::optional<std::string_view> line = next_line()) {
        if (!greeting_) {
            greet(*line);
            continue;
        }
        const std::optional<json> parsed = parse_line(*line);
        std::optional<message> read = parsed ? message_of(*parsed) : std::nullopt;
        if (read)
            return read;
        ++passed_over_;
    }
    return std::nullopt;
}

void watch_client::greet(std::string_view line) {
    const std::optional<json> said = parse_line(line);
    if (!said || !said->is_object())
        fail("doesn't greet as avcore does: name avcore's socket with --watch-socket");
    if (const auto error = said->find("error"); error != said->end() && error->is_string())
        fail("refuses: " + error->get<std::string>());
    const auto kind = said->find("jorn");
    const auto version = said->find("version");
    if (kind == said->end() || *kind != "watch" || version == said->end() ||
        !version->is_number_unsigned())
        fail("doesn't greet as avcore does: name avcore's socket with --watch-socket");
    if (*version != WATCH_VERSION)
        fail("speaks version " + version->dump() + " of the watch socket, avwatch knows " +
             std::to_string(WATCH_VERSION) + ": take both programs of one release");
    greeting_ = greeting_of(*said);
    if (!greeting_)
        fail("greets without what a greeting has: take both programs of one release");
}

void watch_client::fail(const std::string &what) const {
    throw no_watch("avcore at " + path_ + ' ' + what);
}

} // namespace avwatch
