// The places of the watched flows. A flow keeps its place; what the same two sides begin later has
// another one, and is the current flow of these sides then.
//
// Whatever changes gets a number, counted up.
#pragma once

#include "avcore/gate/gate.h"
#include "avcore/watch/watched_flow.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <unordered_map>
#include <vector>

namespace avcore {

class flow_places {
public:
    flow_places();

    uint32_t count() const { return static_cast<uint32_t>(flows_.size()); }
    // Stay where they are while others come.
    watched_flow &operator[](uint32_t place) { return flows_[place]; }
    const watched_flow &operator[](uint32_t place) const { return flows_[place]; }

    uint64_t change_at(uint32_t place) const { return changes_[place]; } // 0: there is nothing
    uint64_t last_change() const { return last_change_; }
    uint64_t change(uint32_t place) { return changes_[place] = ++last_change_; } // its number

    uint32_t take(); // for a flow that no gate has
    // For the current flow of these sides; there is none.
    uint32_t take(const gate_flow &key);
    // The current flow of these sides.
    std::optional<uint32_t> find(const gate_flow &key) const;
    // The flow isn't the current one of its sides any more.
    void retire(uint32_t place);
    void free(uint32_t place);

private:
    struct key_hash {
        uint64_t seed;
        size_t operator()(const gate_flow &key) const;
    };
    struct same_key {
        bool operator()(const gate_flow &a, const gate_flow &b) const;
    };

    std::deque<watched_flow> flows_;
    std::vector<uint64_t> changes_; // by place
    std::vector<uint32_t> free_;
    std::unordered_map<gate_flow, uint32_t, key_hash, same_key> by_key_; // the current ones
    uint64_t last_change_ = 0;
};

} // namespace avcore
