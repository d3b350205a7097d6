#include "avwatch/serve/http_server.h"

#include "avcore/base/config_text.h"
#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/failure.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <microhttpd.h>
#include <new>
#include <optional>
#include <string_view>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace avwatch {
namespace {

using avcore::monotonic_ms;
using avcore::NEVER_MS;

constexpr unsigned SILENT_S = 10;
constexpr int BACKLOG = 64;
constexpr size_t STREAM_BLOCK = 8'192;
constexpr int64_t FEEDING_MS = 100; // at once
constexpr char TLS_VERSIONS[] = "NORMAL:-VERS-TLS1.0:-VERS-TLS1.1:-VERS-DTLS-ALL";

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

bool is_loopback_address(const sockaddr *address) {
    if (address != nullptr && address->sa_family == AF_INET) {
        sockaddr_in v4 = {};
        memcpy(&v4, address, sizeof v4);
        return ntohl(v4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    }
    if (address == nullptr || address->sa_family != AF_INET6)
        return false;
    sockaddr_in6 v6 = {};
    memcpy(&v6, address, sizeof v6);
    // IPv4's come as such to a socket of both.
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) != 0 ||
           (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr) != 0 && v6.sin6_addr.s6_addr[12] == IN_LOOPBACKNET);
}

// Whose a connection is: who has an IPv6 address has its /64 of them.
uint64_t site_of(const sockaddr *address) {
    uint64_t site = 0;
    if (address != nullptr && address->sa_family == AF_INET) {
        sockaddr_in v4 = {};
        memcpy(&v4, address, sizeof v4);
        return v4.sin_addr.s_addr;
    }
    if (address == nullptr || address->sa_family != AF_INET6)
        return site;
    sockaddr_in6 v6 = {};
    memcpy(&v6, address, sizeof v6);
    if (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr) != 0)
        memcpy(&site, &v6.sin6_addr.s6_addr[12], sizeof(in_addr));
    else
        memcpy(&site, &v6.sin6_addr, sizeof site);
    return site;
}

const sockaddr *address_of(MHD_Connection *connection) {
    const MHD_ConnectionInfo *from =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    return from != nullptr ? from->client_addr : nullptr;
}

void shut(MHD_Connection *connection) {
    const MHD_ConnectionInfo *info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (info != nullptr)
        shutdown(info->connect_fd, SHUT_RDWR);
}

struct response_releaser {
    void operator()(MHD_Response *response) const { MHD_destroy_response(response); }
};
using owned_response = std::unique_ptr<MHD_Response, response_releaser>;

MHD_Result send(MHD_Connection *connection, const page_reply &reply, owned_response response) {
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE,
                            std::string(reply.type).c_str());
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONNECTION, "close");
    for (const auto &[name, value] : reply.headers)
        MHD_add_response_header(response.get(), name, value.c_str());
    // The reference that a connection has outlives ours.
    return MHD_queue_response(connection, reply.status, response.get());
}

MHD_Result send(MHD_Connection *connection, page_reply reply) {
    const std::string_view constant = reply.constant_body;
    if (!constant.empty())
        return send(
            connection, reply,
            owned_response(MHD_create_response_from_buffer(
                constant.size(), const_cast<char *>(constant.data()), MHD_RESPMEM_PERSISTENT)));
    auto body = std::make_unique<std::string>(std::move(reply.body));
    owned_response response(MHD_create_response_from_buffer_with_free_callback_cls(
        body->size(), body->data(),
        [](void *kept) { std::unique_ptr<std::string>(static_cast<std::string *>(kept)); },
        body.get()));
    if (response)
        static_cast<void>(body.release()); // the response has it
    return send(connection, reply, std::move(response));
}

MHD_Result send(MHD_Connection *connection, unsigned status, const char *text) {
    page_reply reply;
    reply.status = status;
    reply.body = text;
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        reply.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    return send(connection, std::move(reply));
}

MHD_Result take_argument(void *context, MHD_ValueKind /*kind*/, const char *name,
                         const char *value) {
    auto &arguments = *static_cast<std::map<std::string, std::string> *>(context);
    arguments.emplace(name, value != nullptr ? value : "");
    return MHD_YES;
}

page_request request_of(MHD_Connection *connection, const char *url, bool is_head) {
    page_request asked;
    asked.is_head = is_head;
    asked.path = url;
    const std::pair<const char *, std::string &> headers[] = {
        {MHD_HTTP_HEADER_HOST, asked.host},
        {MHD_HTTP_HEADER_ORIGIN, asked.origin},
        {MHD_HTTP_HEADER_COOKIE, asked.cookie},
        {"Sec-Fetch-Site", asked.fetch_site},
        {MHD_HTTP_HEADER_AUTHORIZATION, asked.authorization},
        {"Sec-Fetch-Mode", asked.fetch_mode},
        {"Sec-Fetch-Dest", asked.fetch_dest}};
    for (const auto &[name, value] : headers) {
        const char *text = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
        value = text != nullptr ? text : "";
    }
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, &take_argument, &asked.arguments);
    asked.is_from_loopback = is_loopback_address(address_of(connection));
    return asked;
}

} // namespace

// An answer without end. The library doesn't look at a connection that is suspended, which it is
// while there is nothing to send.
struct http_server::stream {
    http_server &owner;
    MHD_Connection *connection;
    std::unique_ptr<event_source> source;
    std::shared_ptr<const std::string> waiting;
    size_t sent = 0; // of it
    int64_t end_ms = 0;
    uint64_t round = 0; // of feeding, the last that it had
    bool is_suspended = false;
    bool is_over = false;
};

struct http_server::callbacks {
    static MHD_Result answer(void *context, MHD_Connection *connection, const char *url,
                             const char *method, const char * /*version*/, const char * /*body*/,
                             size_t * /*body_size*/, void ** /*state*/) {
        auto &server = *static_cast<http_server *>(context);
        const std::string_view asked = method;
        try {
            if (asked != MHD_HTTP_METHOD_GET && asked != MHD_HTTP_METHOD_HEAD)
                return send(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "GET and HEAD only\n");
            page_reply reply =
                server.answer_(request_of(connection, url, asked == MHD_HTTP_METHOD_HEAD));
            return reply.events ? begin_stream(server, connection, std::move(reply))
                                : send(connection, std::move(reply));
        } catch (const std::exception &) {
            return MHD_NO; // no memory: the connection is closed
        }
    }

    static MHD_Result begin_stream(http_server &server, MHD_Connection *connection,
                                   page_reply reply) {
        if (server.streams_.size() >= STREAMS_MAX)
            return send(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "too many look on already\n");
        std::shared_ptr<const std::string> first = reply.events->next();
        if (server.streams_.empty())
            server.streams_due_ms_ = server.now_ms_ + STREAM_EVERY_MS;
        server.streams_.push_back({server, connection, std::move(reply.events), std::move(first), 0,
                                   server.now_ms_ + STREAM_MS});
        stream &begun = server.streams_.back();
        owned_response response(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, STREAM_BLOCK,
                                                                  &callbacks::read_stream, &begun,
                                                                  &callbacks::end_stream));
        if (!response) {
            server.streams_.pop_back();
            return MHD_NO;
        }
        // It ends by itself, which a browser takes for no error, but where its reader is slow.
        server.connections_[connection].deadline_ms = server.now_ms_ + STREAM_MS + CONNECTION_MS;
        return send(connection, reply, std::move(response));
    }

    static ssize_t read_stream(void *context, uint64_t /*at*/, char *to, size_t room) {
        auto &from = *static_cast<stream *>(context);
        if (from.is_over)
            return MHD_CONTENT_READER_END_OF_STREAM;
        if (from.sent == from.waiting->size()) {
            from.is_suspended = true;
            MHD_suspend_connection(from.connection);
            return 0;
        }
        const size_t size = from.waiting->copy(to, room, from.sent);
        from.sent += size;
        return static_cast<ssize_t>(size);
    }

    static void end_stream(void *context) {
        auto *ended = static_cast<stream *>(context);
        ended->owner.streams_.remove_if([ended](const stream &each) { return &each == ended; });
    }

    static void note(void *context, MHD_Connection *connection, void ** /*state*/,
                     MHD_ConnectionNotificationCode what) {
        auto *server = static_cast<http_server *>(context);
        const sockaddr *from = address_of(connection);
        if (what != MHD_CONNECTION_NOTIFY_STARTED) {
            server->connections_.erase(connection);
            return;
        }
        try {
            server->connections_[connection] = {server->now_ms_ + CONNECTION_MS, site_of(from),
                                                is_loopback_address(from)};
        } catch (const std::bad_alloc &) {
            shut(connection); // nobody would end it in time
        }
    }

    static MHD_Result admit(void *context, const sockaddr *from, socklen_t /*size*/) {
        return static_cast<const http_server *>(context)->has_place_for(from) ? MHD_YES : MHD_NO;
    }
};

http_server::http_server(const http_settings &settings, answerer answer)
    : answer_(std::move(answer)) {
    unique_fd listening = listen_at(settings.address);
    unsigned flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME;
    std::string certificate, key;
    std::vector<MHD_OptionItem> encryption;
    if (settings.is_encrypted()) {
        certificate = avcore::read_config_text(settings.certificate);
        key = avcore::read_config_text(settings.key);
        flags |= MHD_USE_TLS;
        encryption = {{MHD_OPTION_HTTPS_MEM_CERT, 0, certificate.data()},
                      {MHD_OPTION_HTTPS_MEM_KEY, 0, key.data()},
                      {MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char *>(TLS_VERSIONS)}};
    }
    encryption.push_back({MHD_OPTION_END, 0, nullptr});
    running_.reset(MHD_start_daemon(
        flags, 0, &callbacks::admit, this, &callbacks::answer, this, MHD_OPTION_LISTEN_SOCKET,
        listening.get(), MHD_OPTION_CONNECTION_LIMIT, CONNECTIONS_MAX,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, HEAD_MAX, MHD_OPTION_CONNECTION_TIMEOUT, SILENT_S,
        MHD_OPTION_NOTIFY_CONNECTION, &callbacks::note, this, MHD_OPTION_ARRAY, encryption.data(),
        MHD_OPTION_END));
    if (!running_)
        throw refused("HTTP at " + settings.address + " can't be served" +
                      (settings.is_encrypted() ? ": are " + settings.certificate + " and " +
                                                     settings.key + " a certificate and its key?"
                                               : ""));
    listening.release();
    const MHD_DaemonInfo *info = MHD_get_daemon_info(running_.get(), MHD_DAEMON_INFO_EPOLL_FD);
    if (info == nullptr || info->epoll_fd < 0)
        throw refused("HTTP needs epoll");
    descriptor_ = info->epoll_fd;
}

// The library doesn't stop while a connection is suspended.
http_server::~http_server() {
    for (stream &each : streams_) {
        each.is_over = true;
        if (each.is_suspended)
            MHD_resume_connection(each.connection);
    }
}

void http_server::stopper::operator()(MHD_Daemon *running) const {
    MHD_stop_daemon(running);
}

int64_t http_server::due_ms(int64_t now_ms) const {
    int64_t due_ms = streams_.empty() ? NEVER_MS : streams_due_ms_;
    MHD_UNSIGNED_LONG_LONG left_ms = 0;
    if (MHD_get_timeout(running_.get(), &left_ms) == MHD_YES)
        due_ms =
            std::min(due_ms, now_ms + static_cast<int64_t>(std::min<uint64_t>(left_ms, 60'000)));
    for (const auto &[connection, kept] : connections_)
        due_ms = std::min(due_ms, kept.deadline_ms);
    return due_ms;
}

void http_server::serve(int64_t now_ms) {
    now_ms_ = now_ms;
    end_overdue(now_ms);
    if (!streams_.empty() && now_ms >= streams_due_ms_)
        feed_streams(now_ms);
    const size_t before = connections_.size();
    MHD_run(running_.get());
    // It listens again, where it had too many, with the next run only.
    if (connections_.size() < before)
        MHD_run(running_.get());
}

// The library's own clock starts anew with each byte.
void http_server::end_overdue(int64_t now_ms) {
    for (auto &[connection, kept] : connections_) {
        if (now_ms < kept.deadline_ms)
            continue;
        shut(connection);
        kept.deadline_ms = NEVER_MS;
    }
}

bool http_server::has_place_for(const sockaddr *from) const {
    const bool is_here = is_loopback_address(from);
    const uint64_t site = site_of(from);
    const auto same = std::ranges::count_if(
        connections_, [site](const auto &each) { return each.second.site == site; });
    const auto elsewhere = std::ranges::count_if(
        connections_, [](const auto &each) { return !each.second.is_from_loopback; });
    return std::cmp_less(same, ADDRESS_MAX) &&
           (is_here || std::cmp_less(elsewhere, CONNECTIONS_MAX - LOOPBACK_KEPT));
}

// Those who have read all: what was sent before goes on by itself. What they are told takes time to
// make; the loop's other work gets as much as feeding took before the rest of a round is fed, or
// the next one begins.
void http_server::feed_streams(int64_t now_ms) {
    const int64_t begun_ms = monotonic_ms();
    const bool is_whole = feed_round(begun_ms);
    const int64_t ended_ms = monotonic_ms();
    streams_due_ms_ = ended_ms + (ended_ms - begun_ms);
    if (!is_whole)
        return;
    ++round_;
    streams_due_ms_ = std::max(streams_due_ms_, now_ms + STREAM_EVERY_MS);
}

bool http_server::feed_round(int64_t begun_ms) {
    for (stream &each : streams_) {
        if (!each.is_suspended || each.round == round_)
            continue;
        if (monotonic_ms() - begun_ms >= FEEDING_MS)
            return false;
        each.round = round_;
        try {
            each.is_over = begun_ms >= each.end_ms;
            if (!each.is_over)
                each.waiting = each.source->next();
            each.sent = 0;
        } catch (const std::exception &) {
            each.is_over = true; // no memory
        }
        each.is_suspended = false;
        MHD_resume_connection(each.connection);
    }
    return true;
}

bool is_loopback(const std::string &address) {
    const socket_address parsed = parse(address);
    return is_loopback_address(reinterpret_cast<const sockaddr *>(&parsed.bytes));
}

} // namespace avwatch
