#include "avcore/gate/gate.h"

#include <stdexcept>

namespace avcore {
namespace {

[[noreturn]] void absent() {
    throw std::runtime_error("this avcore was built without the gate (JORN_INLINE)");
}

} // namespace

struct gate::parts {};

gate::gate(const std::string & /*pins*/, const std::vector<std::string> & /*interfaces*/) {
    absent();
}

gate::~gate() = default;
gate::gate(gate &&) noexcept = default;

void gate::set_rules(const gate_rules & /*rules*/) {
    absent();
}

int gate::fd() const {
    absent();
}

bool gate::take(gate_copy_seen & /*copy*/) {
    absent();
}

bool gate::decide(const gate_flow & /*flow*/, const gate_verdict & /*verdict*/) {
    absent();
}

bool gate::set_limit(uint32_t /*bucket*/, const gate_limit & /*limit*/) {
    absent();
}

void gate::beat() {
    absent();
}

uint32_t gate::generation() const {
    absent();
}

void gate::next_generation() {
    absent();
}

gate_counts gate::counts() const {
    absent();
}

void tear_down_gate(const std::string & /*pins*/) {
    absent();
}

gate_status look_at_gate(const std::string & /*pins*/) {
    absent();
}

std::vector<std::string> ways_past_gate(const std::vector<std::string> & /*interfaces*/) {
    absent();
}

} // namespace avcore
