#include "avcore/watch/outgoing_lines.h"

#include "avcore/watch/json_text.h"

#include <cerrno>
#include <sys/socket.h>
#include <utility>

namespace avcore {

// What comes behind one that was lost is lost, too, until the reader was told so: the gap has one
// place.
void outgoing_lines::add_event(uint32_t id, std::string event) {
    if (loses_events() || event_bytes_ + event.size() > MAX_EVENTS) {
        lose_event(id);
        return;
    }
    event_bytes_ += event.size();
    events_.push_back(std::move(event));
}

void outgoing_lines::lose_event(uint32_t id) {
    ++lost_;
    lost_by_ = id;
}

void outgoing_lines::forget_events() {
    events_.clear();
    event_bytes_ = 0;
    lost_ = 0;
}

bool outgoing_lines::make_events() {
    if (!has_events())
        return false;
    for (; !events_.empty() && has_room(); events_.pop_front()) {
        event_bytes_ -= events_.front().size();
        made_ += events_.front();
    }
    if (events_.empty() && lost_ > 0) {
        {
            json_object message(made_);
            message.add("id", lost_by_);
            message.add("lost", std::exchange(lost_, 0));
        }
        made_ += '\n';
    }
    return true;
}

bool outgoing_lines::send_to(int fd) {
    while (!is_empty()) {
        const ssize_t count =
            send(fd, made_.data() + sent_, made_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0)
            return errno == EAGAIN || errno == EINTR;
        sent_ += static_cast<size_t>(count);
    }
    made_.clear();
    sent_ = 0;
    return true;
}

} // namespace avcore
