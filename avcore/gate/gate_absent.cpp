// For builds without the gate.
#include "avcore/gate/gate.h"

#include <stdexcept>

namespace avcore {

struct gate::parts {};

namespace {

[[noreturn]] void refuse() {
    throw std::runtime_error("this avcore was built without --inline: clang or libbpf was missing");
}

} // namespace

gate::gate(const std::string &, const std::vector<std::string> &, std::optional<attach_way>,
           const gate_rules &) {
    refuse();
}
gate::~gate() = default;
gate::gate(gate &&) noexcept = default;

// Of a gate that is there; none is.
interface_news gate::follow_interfaces() {
    return {};
}
bool gate::misses_interfaces() const {
    return false;
}
int gate::interfaces_fd() const {
    return -1;
}
std::vector<std::string> gate::interfaces() const {
    return {};
}
std::vector<std::string> gate::leave_others() {
    return {};
}
std::vector<std::string> gate::taken_away() {
    return {};
}
const std::string &gate::interface_of(uint32_t) {
    static const std::string none;
    return none;
}
void gate::set_rules(const gate_rules &) {}
int gate::fd() const {
    return -1;
}
bool gate::take(gate_copy_seen &) {
    return false;
}
std::optional<gate_copy> gate::next_head() const {
    return std::nullopt;
}
void gate::open_way_back() {}
bool gate::renew_way_back() {
    return false;
}
bool gate::put_back(uint32_t, std::vector<uint8_t> &&) {
    return false;
}
bool gate::has_taken(const gate_flow &) const {
    return false;
}
void gate::forget_holds(const gate_flow &) {}
void gate::add_ending(__u64 gate_endings::*, uint64_t) {}
bool gate::decide(const gate_flow &, const gate_verdict &) {
    return false;
}
std::optional<gate_verdict> gate::verdict_of(const gate_flow &) const {
    return std::nullopt;
}
gate_counter gate::counter_of(const gate_flow &) const {
    return {};
}
std::optional<gate_flow_state> gate::flow_of(const gate_flow &) const {
    return std::nullopt;
}
flow_walk gate::walk_flows(uint32_t &, size_t, const flow_visitor &) const {
    return flow_walk::ended;
}
gate_census gate::census() const {
    return {};
}
void gate::note_told(uint64_t) {}
uint64_t gate::told_ns() const {
    return 0;
}
bool gate::set_limit(uint32_t, const gate_limit &) {
    return false;
}
void gate::beat() {}
void gate::ask_although_unattended(bool) {}
void gate::leave() {}
uint32_t gate::generation() const {
    return 0;
}
void gate::next_generation() {}
gate_counts gate::counts() const {
    return {};
}
gate_endings gate::endings() const {
    return {};
}
std::map<std::array<uint8_t, 6>, uint64_t> gate::refused_copies() const {
    return {};
}

void check_gate_place(const std::string &) {
    refuse();
}
std::vector<std::string> tear_down_gate(const std::string &) {
    refuse();
}
gate_status look_at_gate(const std::string &, const gate_census *) {
    refuse();
}
std::vector<std::string> ways_past_gate(const std::string &, const std::vector<std::string> &) {
    return {};
}

} // namespace avcore
