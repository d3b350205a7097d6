// The IPv4 addresses that stand in for IPv6 addresses towards the daemon, which knows IPv4 alone.
//
// Stand-ins are taken in turn from 240.0.0.0/4, which nobody has: the daemon keeps names long, and
// none comes again before some 268 million others. For the same reason the first one is anywhere in
// the range, as the daemon may have known an earlier run's. The table is bounded, the address used
// longest ago is forgotten, and who chooses the addresses doesn't choose the cost of a look-up.
#pragma once

#include "avcore/base/ip_address.h"

#include <cstdint>
#include <list>
#include <map>
#include <optional>

namespace avcore {

class stand_in_table {
public:
    static constexpr size_t MAX_ADDRESSES = 65'536;
    static constexpr uint32_t FIRST = 0xF000'0001; // 240.0.0.1
    static constexpr uint32_t LAST = 0xFFFF'FFFE;  // below the broadcast address

    explicit stand_in_table(size_t limit = MAX_ADDRESSES, uint32_t first = anywhere());

    // The address's stand-in, which is in use from now on; in network byte order.
    uint32_t stand_in_for(const ip_address &ipv6);

    // None: it stands in for nothing, or for what was forgotten.
    std::optional<ip_address> real(uint32_t stand_in_be) const;

    size_t size() const { return used_.size(); }
    uint64_t taken() const { return taken_; } // that were ever

private:
    struct entry {
        ip_address ipv6;
        uint32_t stand_in; // in host byte order
    };
    using entry_ref = std::list<entry>::iterator;

    static uint32_t anywhere();
    uint32_t take_next();

    size_t limit_;
    uint32_t next_;
    uint64_t taken_ = 0;
    std::list<entry> used_; // the one used last at the front
    std::map<ip_address, entry_ref> by_address_;
    std::map<uint32_t, entry_ref> by_stand_in_;
};

} // namespace avcore
