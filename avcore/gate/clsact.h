// The gate's programs as filters of the kernel's traffic control (clsact), at a priority and with a
// handle of their own, so that they can be told from what others attached. Everything throws
// std::runtime_error with a reason for the user.
#pragma once

#include "avcore/gate/tc_program.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace avcore {

inline constexpr uint32_t GATE_PRIORITY = 7; // the kernel's own choice starts at 49152

struct tc_filter {
    uint32_t priority = 0;
    std::string kind;
    std::string name;       // of a BPF program
    bool redirects = false; // one of its actions does; of a BPF program nobody knows
};

std::optional<tc_program> clsact_gate(const std::string &pins, unsigned if_index, tc_side side);
// True when the interface had no clsact and got one.
bool make_hooks(unsigned if_index);
// Only where nothing is attached to them any more.
void remove_hooks(unsigned if_index);
// In the place of an older one, but not of a program that is somebody else's.
void attach_to_clsact(const std::string &pins, unsigned if_index, tc_side side, int program_fd);
void detach_from_clsact(unsigned if_index, tc_side side);

std::vector<tc_filter> filters_at(unsigned if_index, tc_side side);

} // namespace avcore
