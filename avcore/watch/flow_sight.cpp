#include "avcore/watch/flow_sight.h"

#include <algorithm>
#include <functional>

namespace avcore {
namespace {

// A counter is six words.
using words = std::array<uint64_t, sizeof(gate_counter) / sizeof(uint64_t)>;

words words_of(const gate_counter &counter) {
    return {counter.packets[GATE_UP], counter.packets[GATE_DOWN],
            counter.bytes[GATE_UP],   counter.bytes[GATE_DOWN],
            counter.denied,           counter.limited};
}

gate_counter counter_of(const words &from) {
    return {{from[0], from[1]}, {from[2], from[3]}, from[4], from[5]};
}

template <typename Step>
gate_counter by_words(const gate_counter &a, const gate_counter &b, Step step) {
    words result = words_of(a);
    std::ranges::transform(result, words_of(b), result.begin(), step);
    return counter_of(result);
}

} // namespace

flow_sight sight_of(const flow_life &life) {
    return {life.begins, life.begun_us, life.last_us, life.counted, life.before, life.ends};
}

flow_sight sight_of(const gate_flow_state &state) {
    return {state.begun_ns, state.begun_us, state.last_us, state.before + state.counts,
            state.before,   state.ended};
}

gate_counter operator-(const gate_counter &all, const gate_counter &some) {
    return by_words(all, some, std::minus());
}

gate_counter operator+(const gate_counter &some, const gate_counter &more) {
    return by_words(some, more, std::plus());
}

bool operator==(const gate_counter &a, const gate_counter &b) {
    return words_of(a) == words_of(b);
}

bool holds(const gate_counter &all, const gate_counter &some) {
    return std::ranges::equal(words_of(all), words_of(some), std::greater_equal());
}

} // namespace avcore
