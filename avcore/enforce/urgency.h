// How soon this thread gets a processor. A verdict is worth most within a millisecond, and on a
// busy machine the waits for a processor are longer than all the work. So the thread that carries
// verdicts has real-time priority, the lowest that there is, as long as it needs little. Whoever
// floods it with packets takes it back to the priority of all others, or they would starve.
//
// What the thread starts doesn't inherit it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace avcore {

class urgency {
public:
    using say_function = std::function<void(const std::string &)>;

    // Says so where the machine doesn't grant it; nothing is tried again then.
    explicit urgency(const say_function &say);

    // To be called in every turn of the loop.
    void look(uint64_t now_ns);
    // What this takes isn't counted: something long, in little pieces, that comes to an end.
    void exempt(const std::function<void()> &work);

private:
    int set(bool urgent);

    bool granted_ = false;
    bool urgent_ = false;
    uint64_t since_ns_;      // the present window
    uint64_t used_until_ns_; // of the processor, when it began
};

} // namespace avcore
