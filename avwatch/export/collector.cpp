#include "avwatch/export/collector.h"

#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/complain.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <utility>

namespace avwatch {
namespace {

using avcore::NEVER_MS;

struct found_place {
    std::vector<char> address; // empty: none,
    std::string trouble;       // for this reason
};

found_place find_place(const std::string &host, const std::string &port) {
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_DGRAM;
    wanted.ai_flags = AI_NUMERICSERV;
    addrinfo *first = nullptr;
    const int error = getaddrinfo(host.c_str(), port.c_str(), &wanted, &first);
    if (error != 0)
        return {{}, gai_strerror(error)};
    const auto *begin = reinterpret_cast<const char *>(first->ai_addr);
    found_place found = {{begin, begin + first->ai_addrlen}, {}};
    freeaddrinfo(first);
    return found;
}

// So that a narrow path cuts messages instead of losing them.
void let_be_cut(int socket, int family) {
    static_assert(IP_PMTUDISC_DONT == IPV6_PMTUDISC_DONT);
    const int kind = IP_PMTUDISC_DONT;
    if (family == AF_INET)
        setsockopt(socket, IPPROTO_IP, IP_MTU_DISCOVER, &kind, sizeof kind);
    else
        setsockopt(socket, IPPROTO_IPV6, IPV6_MTU_DISCOVER, &kind, sizeof kind);
}

} // namespace

// The thread has no more than this, so it may outlive the collector.
struct collector::look_up {
    unique_fd done{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::atomic<bool> is_done = false;
    found_place found;
};

collector::collector(place where) : where_(std::move(where)) {}
collector::~collector() = default;

void collector::send(std::vector<std::string> messages) {
    for (std::string &each : messages) {
        if (has_room())
            queue_.push_back(std::move(each));
        else
            ++dropped_;
    }
}

int collector::descriptor() const {
    return looking_ ? looking_->done.get() : -1;
}

int64_t collector::due_ms() const {
    return std::min(look_up_due_ms_, queue_.empty() || !socket_.valid() ? NEVER_MS : send_due_ms_);
}

void collector::serve(int64_t now_ms) {
    if (looking_ && looking_->is_done)
        end_look_up(now_ms);
    if (now_ms >= look_up_due_ms_)
        begin_look_up(now_ms);
    if (!socket_.valid() || now_ms < send_due_ms_)
        return;
    send_due_ms_ = now_ms + PACE_MS;
    for (size_t i = 0; i < AT_ONCE && !queue_.empty(); ++i) {
        if (!send_one(queue_.front()))
            return;
        queue_.pop_front();
    }
}

void collector::begin_look_up(int64_t now_ms) {
    look_up_due_ms_ = NEVER_MS;
    looking_ = std::make_shared<look_up>();
    const auto look = [shared = looking_, host = where_.host, port = where_.port] {
        shared->found = find_place(host, port);
        shared->is_done = true;
        eventfd_write(shared->done.get(), 1);
    };
    try {
        std::thread(look).detach();
    } catch (const std::system_error &error) {
        looking_.reset();
        look_up_due_ms_ = now_ms + RETRY_MS;
        complain_once(error.what());
    }
}

void collector::end_look_up(int64_t now_ms) {
    const found_place found = std::move(looking_->found);
    looking_.reset();
    look_up_due_ms_ = now_ms + (found.address.empty() ? RETRY_MS : LOOK_UP_MS);
    if (found.address.empty() && !socket_.valid())
        complain_once(found.trouble);
    if (found.address.empty() || found.address == address_)
        return;
    sockaddr_storage address = {};
    memcpy(&address, found.address.data(), std::min(found.address.size(), sizeof address));
    unique_fd connected(socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connected.valid() || connect(connected.get(), reinterpret_cast<const sockaddr *>(&address),
                                      static_cast<socklen_t>(found.address.size())) != 0) {
        look_up_due_ms_ = now_ms + RETRY_MS;
        complain_once(strerror(errno));
        return;
    }
    let_be_cut(connected.get(), address.ss_family);
    socket_ = std::move(connected);
    address_ = found.address;
}

// An error may be an earlier datagram's; this one is then tried once more.
bool collector::send_one(const std::string &message) {
    for (int tries = 0; tries < 2; ++tries) {
        if (::send(socket_.get(), message.data(), message.size(), 0) >= 0) {
            ++sent_;
            return true;
        }
        if (errno == EAGAIN || errno == ENOBUFS || errno == EINTR)
            return false;
        ++failed_;
        complain_once(strerror(errno));
    }
    return true;
}

void collector::complain_once(const std::string &why) {
    if (std::exchange(complained_, why) != why)
        complain("flows for " + where_.target + ": " + why);
}

} // namespace avwatch
