// Limits towards the client as queues: a class of HTB at its interface for each limit, with
// fq_codel behind it where the kernel has it.
//
// A client that makes up names makes up limits, so there are so many queues and no more: the limit
// that was asked for longest ago gives its own to another, as in limit_book. A root qdisc that is
// somebody's stays: limits are then kept by drops.
#pragma once

#include "avcore/enforce/limits.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace avcore {

class shaper {
public:
    using say_function = std::function<void(const std::string &)>;

    explicit shaper(say_function say) : say_(std::move(say)) {}

    struct queue {
        uint32_t priority; // of packets that are to wait in it; 0: there can't be one
        bool judge_anew;   // all flows
    };
    // The limit's queue at the interface, made or changed where needed.
    queue queue_of(uint32_t if_index, const limit_owner &owner, uint64_t bytes_per_second);
    // Takes the queues away, also those of a run before.
    void remove_from(const std::vector<std::string> &interfaces);
    void forget_gone(); // interfaces

private:
    static constexpr uint32_t MAJOR = 0xA40C; // of the classes' handles
    // Each takes some 10 KB of the kernel's memory.
    static constexpr uint32_t QUEUES = 4096;

    bool has_root(uint32_t if_index);

    say_function say_;
    limit_book limits_{QUEUES};
    std::map<uint32_t, bool> roots_;                          // by interface: whether it is ours
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> rates_; // by interface and number
};

// Does nothing where there are no queues of ours.
void remove_shaping(const std::string &interface);

} // namespace avcore
