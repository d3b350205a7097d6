#include "avcore/bus/admission.h"

#include <algorithm>
#include <tuple>

namespace avcore {

size_t choose_victim(std::span<const admitted> connections) {
    const auto strangers_beside = [&](const admitted &one) {
        return std::count_if(connections.begin(), connections.end(), [&](const admitted &other) {
            return !other.known && other.address == one.address;
        });
    };
    const auto goes_before = [&](const admitted &a, const admitted &b) {
        if (a.known != b.known)
            return !a.known;
        if (a.known)
            return a.heard_ms < b.heard_ms;
        return std::tuple(-strangers_beside(a), a.heard_ms) <
               std::tuple(-strangers_beside(b), b.heard_ms);
    };
    const auto victim = std::min_element(connections.begin(), connections.end(), goes_before);
    return static_cast<size_t>(victim - connections.begin());
}

} // namespace avcore
