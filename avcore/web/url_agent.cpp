#include "avcore/web/url_agent.h"

#include "avcore/base/host_text.h"
#include "avcore/base/monotonic_clock.h"
#include "control/records/commands.h"
#include "control/records/message.h"
#include "core/text/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace avcore {
namespace {

constexpr int64_t RETRY_MS = 50;
constexpr int64_t PATIENCE_MS = 5'000; // with a daemon that takes or closes no connection

struct late_message {
    cmd_msg_hdr head;
    uf_agent_reply reply;
};
static_assert(sizeof(late_message) == sizeof(cmd_msg_hdr) + sizeof(uf_agent_reply));

// Returns the connection, or none with `errno`; EAGAIN says that the backlog is full.
unique_fd connect_to(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    errno = ENAMETOOLONG;
    if (path.size() >= sizeof address.sun_path)
        return {};
    memcpy(address.sun_path, path.data(), path.size());
    unique_fd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(connection.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) !=
        0)
        return {};
    return connection;
}

bool was_closed(int fd) {
    char ignored[256];
    const ssize_t got = recv(fd, ignored, sizeof ignored, MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR);
}

bool same_flow(const urlf_request &a, const urlf_request &b) {
    return memcmp(&a.flow_key, &b.flow_key, sizeof a.flow_key) == 0;
}

} // namespace

url_agent::url_agent(url_agent_settings settings, category_list categories)
    : settings_(std::move(settings)), categories_(std::move(categories)) {}

std::vector<std::byte> url_agent::answer(const question &asked, int64_t now_ms) {
    urlf_request request;
    if (!settings_.present || asked.body.size() != sizeof request)
        return make_answer(asked, -1);
    memcpy(&request, asked.body.data(), sizeof request);
    const std::string_view domain = field_text(request.domain);
    if (is_late(domain)) {
        answer_later(request, now_ms);
        return make_answer(asked, -1);
    }
    urlf_reply reply = {};
    reply.answer = categories_.answer(domain);
    return make_answer(asked, 0, std::as_bytes(std::span(&reply, 1)));
}

std::optional<urlf_answer> url_agent::answer_about(std::string_view domain) const {
    if (!settings_.present || is_late(domain))
        return std::nullopt;
    return categories_.answer(domain);
}

bool url_agent::is_late(std::string_view domain) const {
    return settings_.down || (settings_.delay_ms && !known_.contains(lower_case(domain)));
}

void url_agent::answer_later(const urlf_request &request, int64_t now_ms) {
    const auto same = std::find_if(late_.begin(), late_.end(), [&request](const late_answer &late) {
        return same_flow(late.request, request);
    });
    if (same != late_.end())
        same->request = request;
    else if (late_.size() < MAX_WAITING)
        late_.push_back({request, now_ms + delay_ms()});
    else
        ++counts_.no_room;
}

int64_t url_agent::next_tick_ms() const {
    if (connection_.valid())
        return connection_ends_ms_;
    return late_.empty() ? NEVER_MS : std::max(late_.front().due_ms, retry_ms_);
}

void url_agent::serve(int64_t now_ms) {
    if (connection_.valid() && (was_closed(connection_.get()) || now_ms >= connection_ends_ms_))
        connection_ = unique_fd();
    if (connection_.valid() || now_ms < next_tick_ms())
        return;
    const late_answer &due = late_.front();
    const bool in_time = now_ms < due.due_ms + PATIENCE_MS;
    if (in_time && send(due.request, now_ms)) {
        ++counts_.sent;
    } else if (in_time && errno == EAGAIN) {
        retry_ms_ = now_ms + RETRY_MS;
        return;
    } else {
        ++counts_.undelivered;
    }
    if (!settings_.down)
        learn(field_text(due.request.domain));
    late_.pop_front();
}

bool url_agent::send(const urlf_request &request, int64_t now_ms) {
    late_message message = {};
    message.head.cmd = CMD_UF_AGENT_REPLY;
    message.head.len = sizeof message.reply;
    message.reply.request = request;
    if (settings_.down)
        message.reply.answer.status = URLF_STATUS_UNREACHABLE;
    else
        message.reply.answer = categories_.answer(field_text(request.domain));
    unique_fd connection = connect_to(settings_.command_socket);
    if (!connection.valid() || ::send(connection.get(), &message, sizeof message,
                                      MSG_NOSIGNAL | MSG_DONTWAIT) != ssize_t{sizeof message})
        return false;
    connection_ = std::move(connection);
    connection_ends_ms_ = now_ms + PATIENCE_MS;
    return true;
}

void url_agent::learn(std::string_view domain) {
    if (known_.size() >= MAX_KNOWN)
        known_.clear();
    known_.insert(lower_case(domain));
}

} // namespace avcore
