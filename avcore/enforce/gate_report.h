// What the gate says of itself, as text and as JSON.
#pragma once

#include "avcore/base/named_count.h"
#include "avcore/gate/gate.h"

#include <iosfwd>

namespace avcore {

// A line for each count that isn't 0.
void print_gate_counts(std::ostream &out, const gate_counts &counts, const gate_endings &endings,
                       uint64_t forgotten_flows);

// All of them by name, each with "gate_" in front of what the JSON calls it.
named_counts gate_counts_by_name(const gate_counts &counts, const gate_endings &endings,
                                 uint64_t forgotten_flows);

void print_gate_status(std::ostream &out, const gate_status &status);
void print_gate_status_json(std::ostream &out, const gate_status &status);

} // namespace avcore
