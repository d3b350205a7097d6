#include "avcore/names/stand_ins.h"

#include <arpa/inet.h>
#include <random>
#include <utility>

namespace avcore {
namespace {

uint32_t after(uint32_t stand_in) {
    return stand_in == stand_in_table::LAST ? stand_in_table::FIRST : stand_in + 1;
}

} // namespace

stand_in_table::stand_in_table(size_t limit, uint32_t first) : limit_(limit), next_(first) {}

uint32_t stand_in_table::anywhere() {
    return FIRST + std::random_device()() % (LAST - FIRST + 1);
}

// One may still be in use when its turn has come again.
uint32_t stand_in_table::take_next() {
    while (by_stand_in_.contains(next_))
        next_ = after(next_);
    ++taken_;
    return std::exchange(next_, after(next_));
}

uint32_t stand_in_table::stand_in_for(const ip_address &ipv6) {
    auto found = by_address_.find(ipv6);
    if (found == by_address_.end()) {
        if (used_.size() >= limit_) {
            by_address_.erase(used_.back().ipv6);
            by_stand_in_.erase(used_.back().stand_in);
            used_.pop_back();
        }
        used_.push_front({ipv6, take_next()});
        found = by_address_.emplace(ipv6, used_.begin()).first;
        by_stand_in_.emplace(used_.front().stand_in, used_.begin());
    }
    used_.splice(used_.begin(), used_, found->second);
    return htonl(used_.front().stand_in);
}

std::optional<ip_address> stand_in_table::real(uint32_t stand_in_be) const {
    const auto found = by_stand_in_.find(ntohl(stand_in_be));
    return found != by_stand_in_.end() ? std::optional(found->second->ipv6) : std::nullopt;
}

} // namespace avcore
