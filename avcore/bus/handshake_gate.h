// How many handshakes start: their arithmetic is the one thing that a peer can make the loop do for
// longer than a frame takes. Neither direction can use up what the other needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace avcore {

class handshake_gate {
public:
    enum class direction { in, out };
    static constexpr size_t MAX_A_SECOND = 5;
    static constexpr size_t MAX_OF_ONE_DIRECTION = 4;

    // Whether one with this address may start now, which then counts.
    bool start(direction which, const std::string &address, int64_t now_ms);
    // Whether one with it started in the last second.
    bool seen(const std::string &address) const;
    // When the next one may.
    int64_t opens_ms(direction which, int64_t now_ms) const;

private:
    struct begun {
        direction which;
        std::string address;
        int64_t at_ms;
    };
    std::deque<begun> last_second_;
};

} // namespace avcore
