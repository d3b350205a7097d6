#include "avwatch/top/what_else.h"

#include "avwatch/base/failure.h"
#include "avwatch/present/flow_cells.h"
#include "avwatch/present/present.h"
#include "avwatch/why/why.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <fcntl.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace avwatch {
namespace {

constexpr size_t ANSWER_MAX_BYTES = 65'536; // a pipe has room for it
constexpr char ASKED[] = "without it";

why_settings question_about(const flow_record &flow) {
    why_settings asked;
    asked.client = flow.client;
    asked.server = endpoint_text(flow.server, flow.server_port);
    asked.is_flow = [&flow](const flow_record &told) { return present::id_of(told.id) == flow.id; };
    return asked;
}

// Labels and texts, each with a NUL behind it.
std::string answered(const flow_record &flow, const invocation &around) {
    std::vector<labelled_text> lines;
    try {
        lines = what_else(question_about(flow), around);
    } catch (const std::exception &reason) {
        lines = {{ASKED, std::string("not known: ") + reason.what()}};
    }
    std::string text;
    for (const auto &[label, said] : lines) {
        for (const std::string &each : {label, said})
            text.append(each, 0, each.find('\0')).push_back('\0');
    }
    text.resize(std::min(text.size(), ANSWER_MAX_BYTES));
    return text;
}

// The terminal is the other process's: nothing is written to it, and nothing of it put back.
[[noreturn]] void answer_and_leave(int fd, const flow_record &flow, const invocation &around) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int each : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(nowhere, each);
    const std::string text = answered(flow, around);
    const bool is_said = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(is_said ? STATUS_DONE : STATUS_REFUSED);
}

std::string_view take_text(std::string_view &said) {
    const size_t end = std::min(said.find('\0'), said.size());
    const std::string_view text = said.substr(0, end);
    said.remove_prefix(std::min(end + 1, said.size()));
    return text;
}

} // namespace

bool what_else_asker::ask(const flow_record &flow) {
    stop();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    answer_ = unique_fd(ends[0]);
    const unique_fd to_fill(ends[1]);
    process_ = fork();
    if (process_ == 0)
        answer_and_leave(to_fill.get(), flow, around_);
    if (process_ < 0) {
        answer_ = {};
        return false;
    }
    fcntl(answer_.get(), F_SETFL, O_NONBLOCK);
    flow_id_ = flow.id;
    return true;
}

std::optional<std::vector<explained_line>> what_else_asker::answer() {
    char piece[4'096];
    ssize_t length = 0;
    while ((length = read(answer_.get(), piece, sizeof piece)) > 0)
        said_.append(piece, static_cast<size_t>(length));
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return std::nullopt;
    std::vector<explained_line> lines;
    for (std::string_view rest = said_; !rest.empty();) {
        const std::string label(take_text(rest));
        lines.emplace_back(label, take_text(rest));
    }
    if (lines.empty())
        lines.emplace_back(ASKED, "not known: nobody has answered");
    stop();
    return lines;
}

void what_else_asker::stop() {
    if (process_ > 0) {
        kill(process_, SIGKILL);
        while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    process_ = -1;
    answer_ = {};
    said_.clear();
}

} // namespace avwatch
