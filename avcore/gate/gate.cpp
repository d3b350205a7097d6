#include "avcore/gate/gate.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/gate/flow_records.h"
#include "avcore/gate/loader.h"
#include "avcore/gate/mapping.h"
#include "avcore/gate/maps.h"
#include "avcore/gate/pins.h"
#include "avcore/gate/places.h"
#include "avcore/gate/ring.h"
#include "avcore/gate/traffic_control.h"
#include "avcore/gate/way_back.h"
#include "avcore/gate/wireless.h"
#include "shared/unique_fd.h"

#include <algorithm>
#include <atomic>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <sys/mman.h>
#include <system_error>
#include <utility>

namespace avcore {
namespace {

void list_attached(const std::string &pins, uint32_t settings_id, gate_status &status) {
    std::map<unsigned, std::string> attached;
    for (const auto &[index, name] : all_interfaces()) {
        const std::optional<tc_program> there = gate_at(pins, index, tc_side::ingress);
        if (!there || !uses(*there, settings_id))
            continue;
        attached[index] = name;
        status.ways[name] = ways_of_gate(pins, index, tc_side::ingress);
    }
    const wireless_list all = wireless_interfaces().value_or(wireless_list());
    for (const auto &[index, name] : attached) {
        const auto access_point = attached.find(access_point_of(index, all));
        if (access_point == attached.end())
            status.interfaces.push_back(name);
        else
            status.stations[access_point->second].push_back(name);
    }
}

// A gate that teardown can't reach would keep to its rules: by tcx one goes along with an interface
// into another network namespace.
void leave_open(int settings_fd) {
    bpf_map_info info = {};
    uint32_t size = sizeof info;
    if (bpf_obj_get_info_by_fd(settings_fd, &info, &size) != 0 ||
        info.value_size != sizeof(gate_settings) || (info.map_flags & BPF_F_MMAPABLE) == 0)
        return;
    const mapping<gate_settings> settings(settings_fd, sizeof(gate_settings),
                                          PROT_READ | PROT_WRITE, 0);
    write_word(settings.get()->fail_closed, uint32_t{0});
    write_word(settings.get()->unattended, uint32_t{0});
}

} // namespace

struct gate::parts {
    parts(const std::string &at, const std::vector<std::string> &names,
          std::optional<attach_way> wanted, unique_fd program)
        : pins(at),
          way(wanted),
          back_program(std::move(program)),
          verdicts(pinned_map(pins, "verdicts")),
          flows(pinned_map(pins, "flows")),
          recent(pinned_map(pins, "recent")),
          limits(pinned_map(pins, "limits")),
          clients(pinned_map(pins, "clients")),
          holds(pinned_map(pins, "holds")),
          processors(pinned_map(pins, "processors")),
          copies(pinned_map(pins, "copies")),
          settings_map(pinned_map(pins, "settings")),
          settings(settings_map.get(), sizeof(gate_settings), PROT_READ | PROT_WRITE, 0),
          records(flows.get(), recent.get()),
          ring_of_copies(copies.get()),
          places(pins, names) {}

    std::string pins;
    std::optional<attach_way> way; // that was wanted
    unique_fd back_program;
    unique_fd verdicts;
    unique_fd flows;
    unique_fd recent;
    unique_fd limits;
    unique_fd clients;
    unique_fd holds;
    unique_fd processors;
    unique_fd copies;
    unique_fd settings_map;
    mapping<gate_settings> settings;
    flow_records records;
    ring ring_of_copies;
    gate_places places;
    std::optional<way_back> back; // once packets may be held
};

gate::gate(const std::string &pins, const std::vector<std::string> &interfaces,
           std::optional<attach_way> wanted, const gate_rules &first) {
    libbpf_set_print(nullptr); // it would talk to standard error
    unique_fd back_program = set_up_gate(pins, interfaces, wanted, first);
    parts_ = std::make_unique<parts>(pins, interfaces, wanted, std::move(back_program));
    if (generation() == 0) // a new one
        next_generation();
}

gate::~gate() = default;
gate::gate(gate &&) noexcept = default;

interface_news gate::follow_interfaces() {
    return parts_->places.follow();
}

bool gate::misses_interfaces() const {
    return parts_->places.misses_some();
}

int gate::interfaces_fd() const {
    return parts_->places.fd();
}

std::vector<std::string> gate::interfaces() const {
    return parts_->places.names();
}

std::vector<std::string> gate::leave_others() {
    return parts_->places.leave_others();
}

std::vector<std::string> gate::taken_away() {
    return parts_->places.taken_away();
}

const std::string &gate::interface_of(uint32_t if_index) {
    return parts_->places.name_of(if_index);
}

void gate::set_rules(const gate_rules &rules) {
    write_rules(*parts_->settings.get(), rules);
}

int gate::fd() const {
    return parts_->copies.get();
}

bool gate::take(gate_copy_seen &copy) {
    const std::span<const uint8_t> record = parts_->ring_of_copies.next();
    if (record.size() < sizeof copy.head)
        return false;
    memcpy(&copy.head, record.data(), sizeof copy.head);
    const std::span<const uint8_t> frame = record.subspan(sizeof copy.head);
    copy.frame = frame.first(std::min<size_t>(frame.size(), copy.head.captured));
    return true;
}

std::optional<gate_copy> gate::next_head() const {
    const std::span<const uint8_t> record = parts_->ring_of_copies.peek();
    gate_copy head;
    if (record.size() < sizeof head)
        return std::nullopt;
    memcpy(&head, record.data(), sizeof head);
    return head;
}

void gate::open_way_back() {
    if (parts_->back)
        return;
    parts_->back.emplace(parts_->pins, parts_->back_program.get(), parts_->way);
    uint32_t mark = 0;
    while (mark == 0)
        mark = std::random_device()();
    write_word(parts_->settings.get()->back_index, parts_->back->index());
    write_word(parts_->settings.get()->back_mark, mark);
}

bool gate::renew_way_back() {
    if (!parts_->back || parts_->back->is_up())
        return false;
    parts_->back.reset();
    open_way_back();
    return true;
}

bool gate::put_back(uint32_t if_index, std::vector<uint8_t> &&frame) {
    return parts_->back && parts_->back->write(if_index, std::move(frame));
}

bool gate::has_taken(const gate_flow &flow) const {
    gate_hold hold;
    return parts_->back && bpf_map_lookup_elem(parts_->holds.get(), &flow, &hold) == 0 &&
           hold.taken != hold.back;
}

void gate::forget_holds(const gate_flow &flow) {
    bpf_map_delete_elem(parts_->holds.get(), &flow);
}

void gate::add_ending(__u64 gate_endings::*which, uint64_t packets) {
    std::atomic_ref(parts_->settings.get()->endings.*which) += packets;
}

bool gate::decide(const gate_flow &flow, const gate_verdict &verdict) {
    const bool done = bpf_map_update_elem(parts_->verdicts.get(), &flow, &verdict, BPF_ANY) == 0;
    ++std::atomic_ref(parts_->settings.get()->changes);
    return done;
}

std::optional<gate_verdict> gate::verdict_of(const gate_flow &flow) const {
    gate_verdict verdict;
    if (bpf_map_lookup_elem(parts_->verdicts.get(), &flow, &verdict) != 0)
        return std::nullopt;
    return verdict;
}

gate_counter gate::counter_of(const gate_flow &flow) const {
    return parts_->records.counter_of(flow);
}

std::optional<gate_flow_state> gate::flow_of(const gate_flow &flow) const {
    return parts_->records.find(flow);
}

flow_walk gate::walk_flows(uint32_t &cursor, size_t max, const flow_visitor &visit) const {
    return parts_->records.walk(cursor, max, visit);
}

gate_census gate::census() const {
    return take_census(parts_->verdicts.get(), parts_->flows.get(), counts()[GATE_COUNT_FLOWS]);
}

bool gate::set_limit(uint32_t bucket, const gate_limit &limit) {
    return bucket != 0 && bpf_map_update_elem(parts_->limits.get(), &bucket, &limit, BPF_ANY) == 0;
}

void gate::note_told(uint64_t ns) {
    write_word(parts_->settings.get()->told_ns, __u64{ns});
}

uint64_t gate::told_ns() const {
    return read_word(parts_->settings.get()->told_ns);
}

void gate::beat() {
    write_word(parts_->settings.get()->beat_ns, __u64{monotonic_ns()});
}

void gate::ask_although_unattended(bool ask) {
    const uint32_t asks = ask ? GATE_STILL_ASK : 0;
    write_word(parts_->settings.get()->unattended, asks | GATE_STILL_COUNT);
}

void gate::leave() {
    write_word(parts_->settings.get()->unattended, uint32_t{0});
}

uint32_t gate::generation() const {
    return read_word(parts_->settings.get()->generation);
}

void gate::next_generation() {
    std::atomic_ref generation(parts_->settings.get()->generation);
    if (++generation == 0) // which is that of a new gate
        ++generation;
}

gate_counts gate::counts() const {
    return read_counts(parts_->processors.get());
}

gate_endings gate::endings() const {
    return parts_->settings.get()->endings;
}

std::map<std::array<uint8_t, 6>, uint64_t> gate::refused_copies() const {
    std::vector<gate_client> clients(GATE_CLIENTS);
    std::vector<gate_client_state> states(clients.size());
    auto count = static_cast<uint32_t>(clients.size());
    uint32_t next = 0;
    const int error = bpf_map_lookup_batch(parts_->clients.get(), nullptr, &next, clients.data(),
                                           states.data(), &count, nullptr);
    std::map<std::array<uint8_t, 6>, uint64_t> refused;
    for (uint32_t i = 0; i < count && (error == 0 || error == -ENOENT); i++)
        if (states[i].refused > 0)
            refused[std::to_array(clients[i].mac)] = states[i].refused;
    return refused;
}

void check_gate_place(const std::string &interface) {
    ethernet_interface(interface);
}

std::vector<std::string> tear_down_gate(const std::string &pins) {
    std::vector<std::string> names;
    libbpf_set_print(nullptr);
    const unique_fd lock = lock_beside(pins);
    const unique_fd settings(bpf_obj_get(pin_of(pins, "settings").c_str()));
    for (const auto &[index, name] : all_interfaces()) {
        if (take_gate_from(pins, index))
            names.push_back(name);
    }
    leave_open(settings.get());
    remove_pins(pins, layouts::all);
    return names;
}

gate_status look_at_gate(const std::string &pins, const gate_census *census) {
    libbpf_set_print(nullptr);
    gate_status status;
    const unique_fd settings_map = find_map(pins, "settings");
    if (!settings_map.valid())
        return status;
    gate_settings settings = {};
    const uint32_t first = 0;
    if (bpf_map_lookup_elem(settings_map.get(), &first, &settings) != 0)
        throw std::runtime_error("the gate's settings can't be read: " +
                                 std::generic_category().message(errno));
    status.there = true;
    list_attached(pins, id_of_map(settings_map.get()), status);
    status.rules = {settings.fail_closed != 0,
                    settings.copies_per_second,
                    (settings.rules & GATE_PASS_TAGS) != 0,
                    (settings.rules & GATE_DROP_FRAGMENTS) != 0,
                    (settings.rules & GATE_DROP_EXCESS) != 0,
                    (settings.rules & GATE_HOLD) != 0,
                    settings.holds_per_second};
    status.generation = settings.generation;
    if (settings.beat_ns != 0)
        status.beat_age_ms = static_cast<int64_t>(monotonic_ns() - settings.beat_ns) / 1'000'000;
    status.counts = read_counts(pinned_map(pins, "processors").get());
    status.endings = settings.endings;
    const unique_fd verdicts = pinned_map(pins, "verdicts");
    const unique_fd flows = pinned_map(pins, "flows");
    status.census = census != nullptr
                        ? *census
                        : take_census(verdicts.get(), flows.get(), status.counts[GATE_COUNT_FLOWS]);
    return status;
}

} // namespace avcore
