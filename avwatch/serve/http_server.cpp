#include "avwatch/serve/http_server.h"

#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/failure.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <microhttpd.h>
#include <optional>
#include <string_view>
#include <sys/socket.h>

namespace avwatch {
namespace {

using avcore::NEVER_MS;

constexpr unsigned SILENT_S = 10;
constexpr int BACKLOG = 16;

struct socket_address {
    sockaddr_storage bytes = {};
    socklen_t size = 0;
};

std::optional<in_port_t> port_of(std::string_view text) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port == 0)
        return std::nullopt;
    return htons(port);
}

socket_address parse(const std::string &text) {
    const size_t colon = std::min(text.rfind(':'), text.size());
    const std::optional<in_port_t> port =
        port_of(std::string_view(text).substr(std::min(colon + 1, text.size())));
    const std::string host = text.substr(0, colon);
    socket_address address;
    sockaddr_in v4 = {};
    sockaddr_in6 v6 = {};
    if (port && inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = *port;
        memcpy(&address.bytes, &v4, address.size = sizeof v4);
    } else if (port && host.size() > 2 && host.front() == '[' && host.back() == ']' &&
               inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = *port;
        memcpy(&address.bytes, &v6, address.size = sizeof v6);
    } else {
        throw refused("\"" + text +
                      "\" isn't where HTTP can be served: an IP address and a port, as in "
                      "127.0.0.1:8080 or [::1]:8080");
    }
    return address;
}

unique_fd listen_at(const std::string &text) {
    const socket_address address = parse(text);
    unique_fd listening(
        socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!listening.valid() ||
        setsockopt(listening.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listening.get(), reinterpret_cast<const sockaddr *>(&address.bytes), address.size) !=
            0 ||
        listen(listening.get(), BACKLOG) != 0)
        throw refused("HTTP at " + text + ": " + strerror(errno));
    return listening;
}

struct response_releaser {
    void operator()(MHD_Response *response) const { MHD_destroy_response(response); }
};
using owned_response = std::unique_ptr<MHD_Response, response_releaser>;

MHD_Result send(MHD_Connection *connection, unsigned status, const std::string &text,
                const char *type) {
    // Copied. The reference that a connection has outlives ours.
    const owned_response response(MHD_create_response_from_buffer(
        text.size(), const_cast<char *>(text.data()), MHD_RESPMEM_MUST_COPY));
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, type);
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONNECTION, "close");
    MHD_add_response_header(response.get(), "X-Content-Type-Options", "nosniff");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    return MHD_queue_response(connection, status, response.get());
}

} // namespace

struct http_server::callbacks {
    static MHD_Result answer(void *context, MHD_Connection *connection, const char *url,
                             const char *method, const char * /*version*/, const char * /*body*/,
                             size_t * /*body_size*/, void ** /*state*/) {
        constexpr char text[] = "text/plain; charset=utf-8";
        constexpr char exposition[] = "text/plain; version=0.0.4; charset=utf-8";
        const std::string_view asked = method;
        try {
            if (asked != MHD_HTTP_METHOD_GET && asked != MHD_HTTP_METHOD_HEAD)
                return send(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "GET and HEAD only\n", text);
            if (std::string_view(url) != "/metrics")
                return send(connection, MHD_HTTP_NOT_FOUND, "there is /metrics only\n", text);
            return send(connection, MHD_HTTP_OK, static_cast<http_server *>(context)->metrics_(),
                        exposition);
        } catch (const std::exception &) {
            return MHD_NO; // no memory: the connection is closed
        }
    }

    static void note(void *context, MHD_Connection *connection, void ** /*state*/,
                     MHD_ConnectionNotificationCode what) {
        auto *server = static_cast<http_server *>(context);
        if (what == MHD_CONNECTION_NOTIFY_STARTED)
            server->deadlines_ms_[connection] = server->now_ms_ + CONNECTION_MS;
        else
            server->deadlines_ms_.erase(connection);
    }
};

http_server::http_server(const std::string &address, std::function<std::string()> metrics)
    : metrics_(std::move(metrics)) {
    unique_fd listening = listen_at(address);
    running_.reset(MHD_start_daemon(
        MHD_USE_EPOLL, 0, nullptr, nullptr, &callbacks::answer, this, MHD_OPTION_LISTEN_SOCKET,
        listening.get(), MHD_OPTION_CONNECTION_LIMIT, CONNECTIONS_MAX,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, HEAD_MAX, MHD_OPTION_CONNECTION_TIMEOUT, SILENT_S,
        MHD_OPTION_NOTIFY_CONNECTION, &callbacks::note, this, MHD_OPTION_END));
    if (!running_)
        throw refused("HTTP at " + address + " can't be served");
    listening.release();
    const MHD_DaemonInfo *info = MHD_get_daemon_info(running_.get(), MHD_DAEMON_INFO_EPOLL_FD);
    if (info == nullptr || info->epoll_fd < 0)
        throw refused("HTTP needs epoll");
    descriptor_ = info->epoll_fd;
}

http_server::~http_server() = default;

void http_server::stopper::operator()(MHD_Daemon *running) const {
    MHD_stop_daemon(running);
}

int64_t http_server::due_ms(int64_t now_ms) const {
    int64_t due_ms = NEVER_MS;
    MHD_UNSIGNED_LONG_LONG left_ms = 0;
    if (MHD_get_timeout(running_.get(), &left_ms) == MHD_YES)
        due_ms = now_ms + static_cast<int64_t>(std::min<uint64_t>(left_ms, 60'000));
    for (const auto &[connection, deadline_ms] : deadlines_ms_)
        due_ms = std::min(due_ms, deadline_ms);
    return due_ms;
}

void http_server::serve(int64_t now_ms) {
    now_ms_ = now_ms;
    // The library's own clock starts anew with each byte.
    for (auto &[connection, deadline_ms] : deadlines_ms_) {
        if (now_ms < deadline_ms)
            continue;
        const MHD_ConnectionInfo *info =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        if (info != nullptr)
            shutdown(info->connect_fd, SHUT_RDWR);
        deadline_ms = NEVER_MS;
    }
    const size_t before = deadlines_ms_.size();
    MHD_run(running_.get());
    // It listens again, where it had too many, with the next run only.
    if (deadlines_ms_.size() < before)
        MHD_run(running_.get());
}

bool is_loopback(const std::string &address) {
    const socket_address parsed = parse(address);
    if (parsed.bytes.ss_family == AF_INET) {
        sockaddr_in v4 = {};
        memcpy(&v4, &parsed.bytes, sizeof v4);
        return ntohl(v4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    }
    sockaddr_in6 v6 = {};
    memcpy(&v6, &parsed.bytes, sizeof v6);
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) != 0;
}

} // namespace avwatch
