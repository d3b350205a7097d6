#include "avwatch/export/collector.h"

#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/complain.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <iterator>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <utility>

namespace avwatch {
namespace {

using avcore::NEVER_MS;

struct found_places {
    std::vector<std::vector<char>> addresses; // none,
    std::string trouble;                      // for this reason
};

found_places find_places(const std::string &host, const std::string &port) {
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_DGRAM;
    wanted.ai_flags = AI_NUMERICSERV;
    addrinfo *first = nullptr;
    const int error = getaddrinfo(host.c_str(), port.c_str(), &wanted, &first);
    if (error != 0)
        return {{}, error == EAI_SYSTEM ? strerror(errno) : gai_strerror(error)};
    found_places found;
    for (const addrinfo *each = first; each != nullptr; each = each->ai_next) {
        const auto *begin = reinterpret_cast<const char *>(each->ai_addr);
        found.addresses.emplace_back(begin, begin + each->ai_addrlen);
    }
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

// None where there is no way.
unique_fd connect_to(const std::vector<char> &address) {
    sockaddr_storage to = {};
    memcpy(&to, address.data(), std::min(address.size(), sizeof to));
    unique_fd connected(socket(to.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connected.valid() || connect(connected.get(), reinterpret_cast<const sockaddr *>(&to),
                                      static_cast<socklen_t>(address.size())) != 0)
        return {};
    let_be_cut(connected.get(), to.ss_family);
    return connected;
}

// The address of this machine's that it sends from.
std::vector<char> source_of(int socket) {
    sockaddr_in6 from = {}; // or IPv4's, with the port at the same place
    socklen_t size = sizeof from;
    if (getsockname(socket, reinterpret_cast<sockaddr *>(&from), &size) != 0)
        return {};
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    from.sin6_port = 0;
    const auto *begin = reinterpret_cast<const char *>(&from);
    return {begin, begin + std::min<size_t>(size, sizeof from)};
}

} // namespace

// The thread has no more than this, so it may outlive the collector.
struct collector::look_up {
    unique_fd done{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::atomic<bool> is_done = false;
    found_places found;
};

collector::collector(place where, opening begin)
    : where_(std::move(where)), begin_(std::move(begin)) {}
collector::~collector() = default;

void collector::send(std::vector<ipfix_message> messages) {
    std::ranges::move(messages, std::back_inserter(queue_));
}

int collector::descriptor() const {
    return looking_ ? looking_->done.get() : -1;
}

int64_t collector::due_ms() const {
    return std::min(look_up_due_ms_, queue_.empty() || !has_session() ? NEVER_MS : send_due_ms_);
}

void collector::serve(int64_t now_ms) {
    if (looking_ && looking_->is_done)
        end_look_up(now_ms);
    if (now_ms >= look_up_due_ms_)
        begin_look_up(now_ms);
    if (!has_session() || now_ms < send_due_ms_)
        return;
    send_due_ms_ = now_ms + PACE_MS;
    for (size_t i = 0; i < AT_ONCE && !queue_.empty(); ++i) {
        if (!send_one(queue_.front(), now_ms))
            return;
        queue_.pop_front();
    }
    if (is_troubled_ && now_ms - trouble_ms_ >= CALM_MS) {
        is_troubled_ = false;
        complain("flows for " + where_.target + ": no trouble any more");
    }
}

void collector::begin_look_up(int64_t now_ms) {
    look_up_due_ms_ = NEVER_MS;
    looking_ = std::make_shared<look_up>();
    const auto look = [shared = looking_, host = where_.host, port = where_.port] {
        try {
            shared->found = find_places(host, port);
        } catch (const std::bad_alloc &) {
            shared->found.trouble = "no memory"; // short enough to take none
        }
        shared->is_done = true;
        eventfd_write(shared->done.get(), 1);
    };
    try {
        if (!looking_->done.valid())
            throw std::system_error(errno, std::generic_category());
        std::thread(look).detach();
    } catch (const std::system_error &error) {
        looking_.reset();
        look_up_due_ms_ = now_ms + RETRY_MS;
        note_trouble(error.what(), now_ms);
    }
}

void collector::end_look_up(int64_t now_ms) {
    found_places found = std::move(looking_->found);
    looking_.reset();
    std::vector<std::vector<char>> &places = found.addresses;
    look_up_due_ms_ = now_ms + (places.empty() ? RETRY_MS : LOOK_UP_MS);
    if (places.empty() && !has_session()) {
        note_trouble(found.trouble, now_ms);
        return;
    }
    if (places.empty())
        places.push_back(address_);
    // The present one first: names with several have them in another order each time.
    const auto present = std::ranges::find(places, address_);
    if (present != places.end())
        std::swap(places.front(), *present);
    if (std::ranges::any_of(places, [this](const auto &each) { return open(each); }))
        return;
    note_trouble(strerror(errno), now_ms);
    look_up_due_ms_ = now_ms + RETRY_MS;
}

// The present session goes on where another one isn't possible, or would be the same.
bool collector::open(const std::vector<char> &address) {
    unique_fd connected = connect_to(address);
    if (!connected.valid())
        return false;
    if (address == address_ && source_of(connected.get()) == source_of(socket_.get()))
        return true;
    socket_ = std::move(connected);
    address_ = address;
    is_cut_off_ = false;
    sequence_ = 0;
    if (std::exchange(is_troubled_, false))
        complain("flows for " + where_.target + " are on their way");
    std::ranges::move(begin_(), std::inserter(queue_, queue_.begin()));
    return true;
}

// An error may be an earlier datagram's, which was refused: this one is then tried once more. Where
// there is no way at present, this machine may have another address by now.
bool collector::send_one(ipfix_message &message, int64_t now_ms) {
    message.stamp(static_cast<uint32_t>(time(nullptr)), sequence_);
    const auto is_sent = [&] {
        return ::send(socket_.get(), message.bytes.data(), message.bytes.size(), 0) >= 0;
    };
    const auto is_for_a_moment = [] {
        return errno == EAGAIN || errno == ENOBUFS || errno == EINTR;
    };
    if (!is_sent()) {
        if (is_for_a_moment())
            return false;
        note_trouble(strerror(errno), now_ms);
        if (!is_sent()) {
            if (!is_for_a_moment()) {
                is_cut_off_ = true;
                send_due_ms_ = now_ms + AGAIN_MS;
                open(address_);
            }
            return false;
        }
        ++failed_;
    }
    is_cut_off_ = false;
    ++sent_;
    sequence_ += message.records;
    return true;
}

void collector::note_trouble(const std::string &why, int64_t now_ms) {
    trouble_ms_ = now_ms;
    if (!std::exchange(is_troubled_, true))
        complain("flows for " + where_.target + ": " + why);
}

} // namespace avwatch
