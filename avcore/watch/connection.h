// One reader of the watch socket: the lines that it sends, the questions that wait, and what goes
// back.
#pragma once

#include "avcore/watch/answers.h"
#include "avcore/watch/follower.h"
#include "avcore/watch/outgoing_lines.h"
#include "avcore/watch/questions.h"
#include "shared/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace avcore {

class connection {
public:
    static constexpr size_t MAX_WAITING = 16; // questions

    // `sources` outlive it.
    connection(unique_fd fd, const watch_sources &sources, const std::string &greeting);
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    int fd() const { return fd_.get(); }
    // What epoll is to wait for.
    uint32_t events() const;
    // `ready`: of them, those that have come. False: the connection is over.
    bool serve(uint32_t ready, int64_t now_ms);
    int64_t due_ms(int64_t now_ms) const;

    follower *following() { return follower_.get(); } // null: it doesn't
    const follower *following() const { return follower_.get(); }
    // Nothing waits for it.
    bool has_all() const {
        return out_.is_empty() && !out_.has_events() && (!follower_ || follower_->has_all());
    }

private:
    bool has_room() const { return !is_ended_ && waiting_.size() < MAX_WAITING; }
    bool read_some();
    void take_lines();
    void make_some(int64_t now_ms);
    void answer_some();
    void begin(const watch_line &next);
    template <typename Question>
    void give_answer(const Question &asked);
    void refuse(const refusal &why);
    bool is_through() const;

    const watch_sources &sources_;
    unique_fd fd_;
    std::string lines_;     // begun, not taken
    bool is_ended_ = false; // nothing more is read
    std::deque<watch_line> waiting_;
    uint32_t answer_id_ = 0;
    std::unique_ptr<answer> answer_; // null: none is being given
    outgoing_lines out_;
    std::unique_ptr<follower> follower_; // null: there is none
};

} // namespace avcore
