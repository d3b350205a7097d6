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
#include <memory>
#include <optional>
#include <tsl/robin_set.h>
#include <vector>

namespace avcore {

class flow_places {
public:
    flow_places();
    flow_places(const flow_places &) = delete;
    flow_places &operator=(const flow_places &) = delete;

    uint32_t count() const { return static_cast<uint32_t>(flows_.size()); }
    // Stay where they are while others come.
    watched_flow &operator[](uint32_t place) { return flows_[place]; }
    const watched_flow &operator[](uint32_t place) const { return flows_[place]; }

    uint64_t change_at(uint32_t place) const { return changes_[place]; } // 0: there is nothing
    uint64_t last_change() const { return last_change_; }
    uint64_t change(uint32_t place) { return changes_[place] = ++last_change_; } // its number

    // Something about the flow's row may have changed; whoever looks at the row takes that back.
    void note(uint32_t place) { noted_[place] = true; }
    bool take_note(uint32_t place) {
        const bool noted = noted_[place];
        noted_[place] = false;
        return noted;
    }

    uint32_t take(); // for a flow that no gate has
    // For the current flow of these sides; there is none.
    uint32_t take(const gate_flow &key);
    // The current flow of these sides.
    std::optional<uint32_t> find(const gate_flow &key) const;
    // The flow isn't the current one of its sides any more.
    void retire(uint32_t place);
    void free(uint32_t place);

private:
    using flow_list = std::deque<watched_flow>;

    // A place stands for the key of its flow.
    struct key_hash {
        using is_transparent = void;
        uint64_t seed;
        const flow_list *flows;
        size_t operator()(const gate_flow &key) const;
        size_t operator()(uint32_t place) const { return (*this)((*flows)[place].key); }
    };
    struct same_key {
        using is_transparent = void;
        const flow_list *flows;
        bool operator()(uint32_t place, const gate_flow &key) const;
        bool operator()(uint32_t a, uint32_t b) const { return a == b; }
    };
    // With the hashes, by which most others are told apart: the flows lie far from each other.
    using place_set = tsl::robin_set<uint32_t, key_hash, same_key, std::allocator<uint32_t>, true>;

    flow_list flows_;
    std::vector<uint64_t> changes_; // by place, like
    std::vector<bool> noted_;       // which is small, and rows are far apart
    std::vector<uint32_t> free_;
    place_set by_key_; // of the current ones
    uint64_t last_change_ = 0;
};

} // namespace avcore
