// What is remembered of clients for a while, by keys of one's own. It is bounded, for all and for
// each: a client that brings too much pushes out what it brought first, and nobody else's.
//
// Ordered rather than hashed: who chooses the keys doesn't choose the cost.
#pragma once

#include "avcore/frames/frame.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <utility>

namespace avcore {

struct table_bounds {
    size_t all;
    size_t each; // client
    int64_t life_us;
};

template <typename Key, typename Value>
class client_table {
public:
    explicit client_table(const table_bounds &bounds) : bounds_(bounds) {}

    // In place of what has this key, whoever brought that.
    void put(const mac_address &client, const Key &key, Value value, int64_t time_us) {
        while (!entries_.empty() && is_over(entries_.begin()->second, time_us))
            forget(entries_.begin()->first);
        if (const auto known = index_.find(key); known != index_.end())
            forget(known->second);
        if (const auto own = by_client_.find(client);
            own != by_client_.end() && own->second.size() >= bounds_.each)
            forget(*own->second.begin());
        if (entries_.size() >= bounds_.all)
            forget(entries_.begin()->first);
        entries_.emplace(++last_, entry{key, std::move(value), client, time_us});
        index_.emplace(key, last_);
        by_client_[client].insert(last_);
    }

    // Null when there is none, or none any more.
    const Value *find(const Key &key, int64_t time_us) const {
        const auto known = index_.find(key);
        if (known == index_.end())
            return nullptr;
        const entry &found = entries_.at(known->second);
        return is_over(found, time_us) ? nullptr : &found.value;
    }

private:
    struct entry {
        Key key;
        Value value;
        mac_address client;
        int64_t time_us;
    };

    bool is_over(const entry &one, int64_t time_us) const {
        return time_us - one.time_us >= bounds_.life_us;
    }

    void forget(uint64_t number) {
        const auto found = entries_.find(number);
        const auto own = by_client_.find(found->second.client);
        own->second.erase(number);
        if (own->second.empty())
            by_client_.erase(own);
        index_.erase(found->second.key);
        entries_.erase(found);
    }

    table_bounds bounds_;
    uint64_t last_ = 0;
    std::map<uint64_t, entry> entries_; // in the order of their coming
    std::map<Key, uint64_t> index_;
    std::map<mac_address, std::set<uint64_t>> by_client_;
};

} // namespace avcore
