#include "avcore/watch/flow_places.h"

#include <array>
#include <bit>
#include <cstring>
#include <random>
#include <string>
#include <utility>

namespace avcore {
namespace {

using key_words = std::array<uint64_t, sizeof(gate_flow) / sizeof(uint64_t)>;

key_words words_of(const gate_flow &key) {
    key_words words;
    memcpy(words.data(), &key, sizeof key);
    return words;
}

// Both halves of the products, folded into one word; 32-bit machines have no type for the whole.
uint64_t folded_product(uint64_t a, uint64_t b) {
    const uint64_t a_low = static_cast<uint32_t>(a);
    const uint64_t b_low = static_cast<uint32_t>(b);
    return std::rotl((a >> 32) * b_low, 32) ^ (a >> 32) * (b >> 32) ^
           std::rotl(a_low * (b >> 32), 32) ^ a_low * b_low;
}

} // namespace

// Clients choose the keys; without the seed they can't choose which of them meet.
size_t flow_places::key_hash::operator()(const gate_flow &key) const {
    uint64_t hash = seed;
    for (const uint64_t word : words_of(key))
        hash = folded_product(word ^ hash, seed | 1) ^ seed;
    return static_cast<size_t>(hash ^ hash >> 32);
}

bool flow_places::same_key::operator()(uint32_t place, const gate_flow &key) const {
    return words_of((*flows)[place].key) == words_of(key);
}

flow_places::flow_places()
    : by_key_(0, key_hash{uint64_t{std::random_device()()} << 32 | std::random_device()(), &flows_},
              same_key{&flows_}) {}

uint32_t flow_places::take() {
    uint32_t place = count();
    if (free_.empty()) {
        flows_.emplace_back();
        changes_.push_back(0);
        noted_.push_back(false);
    } else {
        place = free_.back();
        free_.pop_back();
    }
    flows_[place].used = flows_[place].current = true;
    return place;
}

uint32_t flow_places::take(const gate_flow &key) {
    const uint32_t place = take();
    flows_[place].at_gate = true;
    flows_[place].key = key;
    by_key_.insert(place);
    return place;
}

std::optional<uint32_t> flow_places::find(const gate_flow &key) const {
    const auto known = by_key_.find(key);
    return known != by_key_.end() ? std::optional(*known) : std::nullopt;
}

void flow_places::retire(uint32_t place) {
    watched_flow &flow = flows_[place];
    if (flow.current && flow.at_gate)
        by_key_.erase(place);
    flow.current = false;
}

void flow_places::free(uint32_t place) {
    retire(place);
    std::string id = std::move(flows_[place].id);
    id.clear();
    flows_[place] = {};
    flows_[place].id = std::move(id); // for the next one, which needs as much
    changes_[place] = 0;
    noted_[place] = false;
    free_.push_back(place);
}

} // namespace avcore
