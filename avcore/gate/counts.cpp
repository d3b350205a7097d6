#include "avcore/gate/counts.h"

#include "avcore/gate/maps.h"

#include <bpf/bpf.h>
#include <cerrno>
#include <iterator>
#include <vector>

namespace avcore {

gate_counts read_counts(int fd) {
    std::vector<gate_processor> each(possible_processors());
    gate_counts counts = {};
    const uint32_t first = 0;
    if (bpf_map_lookup_elem(fd, &first, each.data()) == 0)
        for (const gate_processor &one : each)
            for (size_t i = 0; i < counts.size(); i++)
                counts[i] += one.counts[i];
    return counts;
}

void count_verdicts(int fd, uint64_t (&verdicts)[3]) {
    std::vector<gate_flow> flows(GATE_FLOWS / 16);
    std::vector<gate_verdict> found(flows.size());
    uint32_t at = 0;
    int error = 0;
    for (void *from = nullptr; error == 0; from = &at) {
        auto count = static_cast<uint32_t>(flows.size());
        error = bpf_map_lookup_batch(fd, from, &at, flows.data(), found.data(), &count, nullptr);
        if (error != 0 && error != -ENOENT)
            return;
        for (uint32_t i = 0; i < count; i++) {
            const bool final = (found[i].flags & GATE_NOT_YET_FINAL) == 0;
            if (flows[i].fragments == 0 && found[i].action < std::size(verdicts))
                verdicts[final ? found[i].action : 0]++;
        }
    }
}

} // namespace avcore
