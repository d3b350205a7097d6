// What the bus waits for: any number of descriptors behind one, and the part that each belongs to.
#pragma once

#include "shared/unique_fd.h"

#include <array>
#include <cstdint>
#include <span>
#include <sys/epoll.h>

namespace avcore {

enum class bus_part : uint32_t { listener, incoming, outgoing, local_listener, local };

class poller {
public:
    struct event {
        bus_part part;
        uint32_t id; // within the part; never given out again, so that a late event finds nobody
    };

    poller();
    int fd() const { return epoll_.get(); }

    // A descriptor that is closed is forgotten. `add` returns whether there was room for it.
    bool add(int fd, bus_part part, uint32_t id, uint32_t events);
    void change(int fd, bus_part part, uint32_t id, uint32_t events);

    // What is ready, some at a time.
    std::span<const event> ready();

private:
    static constexpr size_t MAX_EVENTS = 16;
    unique_fd epoll_;
    std::array<event, MAX_EVENTS> events_ = {};
};

} // namespace avcore
