#include "support/told_gate.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <linux/pkt_cls.h>
#include <map>
#include <stdexcept>
#include <utility>

namespace {

constexpr unsigned char TOLD_OBJECT[] = {
#include "told_gate_object.inc"
};

void need(bool done, const std::string &what) {
    if (!done)
        throw std::runtime_error(what + ": " + strerror(errno));
}

int keep(void *copies, void *record, size_t size) {
    told_gate::copy one;
    memcpy(&one.head, record, sizeof one.head);
    const auto *frame = static_cast<const uint8_t *>(record) + sizeof one.head;
    one.frame.assign(frame, frame + size - sizeof one.head);
    static_cast<std::deque<told_gate::copy> *>(copies)->push_back(std::move(one));
    return 0;
}

} // namespace

struct told_gate::parts {
    bpf_object *object = nullptr;
    ring_buffer *ring = nullptr;
    std::array<int, 2> programs = {};
    std::map<std::string, int> maps;
    std::deque<copy> copies;
    size_t processors = static_cast<size_t>(libbpf_num_possible_cpus());

    ~parts() {
        ring_buffer__free(ring);
        bpf_object__close(object);
    }
};

told_gate::told_gate(const bounds &sizes) : parts_(std::make_unique<parts>()) {
    libbpf_set_print(nullptr);
    parts &all = *parts_;
    all.object = bpf_object__open_mem(TOLD_OBJECT, sizeof TOLD_OBJECT, nullptr);
    need(all.object != nullptr, "the gate's program can't be read");
    const std::pair<const char *, uint32_t> bounded[] = {
        {"verdicts", sizes.flows},    {"flows", sizes.flows},
        {"clients", sizes.clients},   {"holds", sizes.holds},
        {"copies", sizes.ring_bytes}, {"recent", GATE_RECENT * all.processors}};
    for (const auto &[name, size] : bounded)
        bpf_map__set_max_entries(bpf_object__find_map_by_name(all.object, name), size);
    need(bpf_object__load(all.object) == 0, "the kernel doesn't take the gate");
    for (const char *name : {"verdicts", "flows", "clients", "holds", "copies", "recent", "limits",
                             "settings", "processors", ".bss"})
        all.maps[name] = bpf_object__find_map_fd_by_name(all.object, name);
    for (const auto &[way, name] :
         {std::pair{GATE_UP, "jorn_gate_up"}, std::pair{GATE_DOWN, "jorn_gate_down"}})
        all.programs[way] = bpf_program__fd(bpf_object__find_program_by_name(all.object, name));
    all.ring = ring_buffer__new(all.maps["copies"], keep, &all.copies, nullptr);
    need(all.ring != nullptr, "no ring");
}

told_gate::~told_gate() = default;

void told_gate::tell_time(uint64_t now_ns) {
    write(".bss", uint32_t{0}, std::array<uint64_t, 2>{now_ns, now_ns / TICK_NS}); // as in clock.h
}

told_gate::outcome told_gate::run(const packet &given) {
    outcome result = {false, octets(4096, 0), 0, 0};
    __sk_buff around = {};
    around.ifindex = given.if_index;
    around.mark = given.mark;
    around.priority = given.priority;
    around.gso_segs = given.segments > 1 ? given.segments : 0;
    around.gso_size = given.segment_size;
    LIBBPF_OPTS(bpf_test_run_opts, options, .data_in = given.frame.data(),
                .data_out = result.frame.data(),
                .data_size_in = static_cast<uint32_t>(given.frame.size()),
                .data_size_out = static_cast<uint32_t>(result.frame.size()), .ctx_in = &around,
                .ctx_out = &around, .ctx_size_in = sizeof around, .ctx_size_out = sizeof around,
                .repeat = 1);
    need(bpf_prog_test_run_opts(parts_->programs[given.way], &options) == 0,
         "the kernel doesn't run it");
    result.passes = static_cast<int>(options.retval) != TC_ACT_SHOT;
    result.frame.resize(options.data_size_out);
    result.mark = around.mark;
    result.priority = around.priority;
    return result;
}

std::deque<told_gate::copy> told_gate::take_copies() {
    need(ring_buffer__consume(parts_->ring) >= 0, "the ring can't be read");
    return std::exchange(parts_->copies, {});
}

std::array<uint64_t, GATE_COUNTS> told_gate::counts() const {
    std::vector<gate_processor> each(parts_->processors);
    const uint32_t first = 0;
    need(bpf_map_lookup_elem(parts_->maps["processors"], &first, each.data()) == 0, "no counts");
    std::array<uint64_t, GATE_COUNTS> sum = {};
    for (const gate_processor &one : each)
        for (size_t i = 0; i < sum.size(); i++)
            sum[i] += one.counts[i];
    return sum;
}

// What the flow's record has, and what processors have at hand.
gate_counter told_gate::counter_of(const gate_flow &flow) const {
    gate_flow_record record = {};
    bpf_map_lookup_elem(parts_->maps["flows"], &flow, &record);
    gate_counter &sum = record.counter;
    for (size_t i = 0; i < parts_->processors; i++) {
        gate_recent recent = {};
        const auto place = static_cast<uint32_t>(i * GATE_RECENT + gate_place(&flow));
        need(bpf_map_lookup_elem(parts_->maps["recent"], &place, &recent) == 0, "no place");
        if (memcmp(&recent.flow, &flow, sizeof flow) != 0)
            continue;
        for (const gate_direction way : {GATE_UP, GATE_DOWN}) {
            sum.packets[way] += recent.counter.packets[way];
            sum.bytes[way] += recent.counter.bytes[way];
        }
        sum.denied += recent.counter.denied;
        sum.limited += recent.counter.limited;
    }
    return sum;
}

void told_gate::write_bytes(const char *map, const void *key, const void *value) {
    need(bpf_map_update_elem(parts_->maps[map], key, value, BPF_ANY) == 0, map);
}

bool told_gate::knows_bytes(const char *map, const void *key) const {
    std::array<uint8_t, 256> value;
    return bpf_map_lookup_elem(parts_->maps[map], key, value.data()) == 0;
}
