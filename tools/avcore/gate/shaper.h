// Limits towards the client as queues: a class of HTB at its interface for each limit, with
// fq_codel behind it where the kernel has it.
//
// iproute2's tc makes them, in some milliseconds, once for each limit. A root qdisc that is
// somebody's stays: the limit is then kept by drops.
#pragma once

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

    // The packet priority that leads into the limit's class, made or changed where needed; 0 when
    // there can't be one. `number` names the limit, below 65,536.
    uint32_t priority_of(uint32_t if_index, uint32_t number, uint64_t bytes_per_second);
    // Takes the queues away, also those of a run before.
    void remove_from(const std::vector<std::string> &interfaces);
    void forget_gone(); // interfaces

    // Whether a packet priority leads into a class of ours.
    static constexpr bool is_queue(uint32_t priority) { return priority >> 16 == MAJOR; }

private:
    static constexpr uint32_t MAJOR = 0xA40C; // of the classes' handles

    bool make_root(const std::string &interface);

    say_function say_;
    std::map<uint32_t, bool> roots_;                          // by interface: whether it is ours
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> rates_; // by interface and number
};

// Does nothing where there are no queues of ours.
void remove_shaping(const std::string &interface);

} // namespace avcore
