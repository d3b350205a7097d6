#include "avcore/bus/poller.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace avcore {
namespace {

epoll_event tagged(bus_part part, uint32_t id, uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.u64 = static_cast<uint64_t>(part) << 32 | id;
    return event;
}

} // namespace

poller::poller() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    if (!epoll_.valid())
        throw std::runtime_error(std::string("bus: ") + strerror(errno));
}

bool poller::add(int fd, bus_part part, uint32_t id, uint32_t events) {
    epoll_event wanted = tagged(part, id, events);
    return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &wanted) == 0;
}

void poller::change(int fd, bus_part part, uint32_t id, uint32_t events) {
    epoll_event wanted = tagged(part, id, events);
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &wanted);
}

std::span<const poller::event> poller::ready() {
    std::array<epoll_event, MAX_EVENTS> found;
    const int count = epoll_wait(epoll_.get(), found.data(), static_cast<int>(found.size()), 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event &each = found[static_cast<size_t>(i)];
        events_[static_cast<size_t>(i)] = {static_cast<bus_part>(each.data.u64 >> 32),
                                           static_cast<uint32_t>(each.data.u64)};
    }
    return std::span(events_).first(static_cast<size_t>(std::max(count, 0)));
}

} // namespace avcore
