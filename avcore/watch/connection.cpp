#include "avcore/watch/connection.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/watch/json_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

namespace avcore {

connection::connection(unique_fd fd, const watch_sources &sources, const std::string &greeting)
    : sources_(sources), fd_(std::move(fd)) {
    out_.made() = greeting;
}

uint32_t connection::events() const {
    return (has_room() ? uint32_t{EPOLLIN} : 0) | (out_.is_empty() ? 0 : uint32_t{EPOLLOUT});
}

// The far end that has only stopped asking still gets its answers.
bool connection::is_through() const {
    return is_ended_ && out_.is_empty() && waiting_.empty() && !answer_ && !follower_;
}

bool connection::serve(uint32_t ready, int64_t now_ms) {
    if ((ready & (EPOLLHUP | EPOLLERR)) != 0 || ((ready & EPOLLIN) != 0 && !read_some()))
        return false;
    take_lines();
    if (!out_.send_to(fd()))
        return false;
    if (out_.is_empty()) {
        make_some(now_ms);
        if (!out_.send_to(fd()))
            return false;
    }
    return !is_through();
}

int64_t connection::due_ms(int64_t now_ms) const {
    if (!out_.is_empty())
        return NEVER_MS;
    const bool answers = answer_ ? answer_->is_ready() : !waiting_.empty();
    if (answers || out_.has_events())
        return now_ms;
    return follower_ ? follower_->due_ms(now_ms) : NEVER_MS;
}

bool connection::read_some() {
    std::array<char, MAX_QUESTION> bytes;
    const ssize_t count = has_room() ? recv(fd(), bytes.data(), bytes.size(), 0) : -1;
    if (count < 0)
        return !has_room() || errno == EAGAIN || errno == EINTR;
    is_ended_ = count == 0;
    lines_.append(bytes.data(), static_cast<size_t>(count));
    return true;
}

void connection::take_lines() {
    while (waiting_.size() < MAX_WAITING) {
        const size_t length = lines_.find('\n');
        if (std::min(length, lines_.size()) >= MAX_QUESTION) {
            waiting_.emplace_back(refusal{std::nullopt, "a line is too long"});
            is_ended_ = true;
            lines_.clear();
            return;
        }
        if (length == std::string::npos)
            return;
        waiting_.push_back(read_question(std::string_view(lines_).substr(0, length)));
        lines_.erase(0, length + 1);
    }
}

void connection::make_some(int64_t now_ms) {
    out_.make_events();
    answer_some();
    if (follower_ && out_.has_room())
        follower_->add_some(now_ms);
}

void connection::answer_some() {
    if (!out_.has_room())
        return;
    if (!answer_ && !waiting_.empty()) {
        begin(waiting_.front());
        waiting_.pop_front();
    }
    if (!answer_ || !answer_->is_ready() || answer_->add_some(out_.made()))
        return;
    answer_.reset();
    {
        json_object done(out_.made());
        done.add("id", answer_id_);
        done.add("done", true);
    }
    out_.made() += '\n';
}

void connection::begin(const watch_line &next) {
    if (const auto *question = std::get_if<watch_question>(&next)) {
        give_answer(*question);
    } else if (const auto *profile = std::get_if<profile_question>(&next)) {
        give_answer(*profile);
    } else if (const auto *wish = std::get_if<follow_wish>(&next)) {
        out_.forget_events();
        follower_.reset();
        follower_ = std::make_unique<follower>(sources_.flows, sources_.behind, out_, *wish);
    } else {
        refuse(std::get<refusal>(next));
    }
}

template <typename Question>
void connection::give_answer(const Question &asked) {
    try {
        answer_id_ = asked.id;
        answer_ = begin_answer(asked, sources_);
    } catch (const std::runtime_error &error) {
        refuse({asked.id, error.what()});
    }
}

void connection::refuse(const refusal &why) {
    {
        json_object error(out_.made());
        if (why.id)
            error.add("id", *why.id);
        error.add("error", why.why);
    }
    out_.made() += '\n';
}

} // namespace avcore
