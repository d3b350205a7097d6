#include "avcore/gate/counts.h"

#include "avcore/gate/maps.h"

#include <algorithm>
#include <bpf/bpf.h>
#include <cerrno>
#include <iterator>
#include <vector>

namespace avcore {
namespace {

// An error ends it early.
template <typename Value, typename Visitor>
void visit_all(int fd, const Visitor &visit) {
    std::vector<gate_flow> flows(GATE_FLOWS / 16);
    std::vector<Value> values(flows.size());
    uint32_t at = 0;
    int error = 0;
    for (void *from = nullptr; error == 0; from = &at) {
        auto count = static_cast<uint32_t>(flows.size());
        error = bpf_map_lookup_batch(fd, from, &at, flows.data(), values.data(), &count, nullptr);
        if (error != 0 && error != -ENOENT)
            return;
        for (uint32_t i = 0; i < count; i++)
            visit(flows[i], values[i]);
    }
}

// Adds them.
void count_verdicts(int fd, uint64_t (&verdicts)[3]) {
    visit_all<gate_verdict>(fd, [&](const gate_flow &flow, const gate_verdict &verdict) {
        const bool final = (verdict.flags & GATE_NOT_YET_FINAL) == 0;
        if (flow.fragments == 0 && verdict.action < std::size(verdicts))
            verdicts[final ? verdict.action : 0]++;
    });
}

// The kernel keeps at most so many places free for each processor, and drops nothing before all
// others are taken.
uint64_t count_forgotten(int fd, uint64_t made) {
    constexpr uint64_t kept_free = 128;
    if (made + kept_free * possible_processors() <= GATE_FLOWS)
        return 0;
    uint64_t there = 0;
    visit_all<gate_flow_record>(fd, [&](const gate_flow &, const gate_flow_record &) { there++; });
    return made - std::min(made, there);
}

} // namespace

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

gate_census take_census(int verdicts_fd, int flows_fd, uint64_t made) {
    gate_census census;
    count_verdicts(verdicts_fd, census.verdicts);
    census.forgotten_flows = count_forgotten(flows_fd, made);
    return census;
}

} // namespace avcore
