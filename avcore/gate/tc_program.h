// A program in the kernel, as it tells of it, and the two sides of an interface.
#pragma once

#include "shared/unique_fd.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace avcore {

// Programs are known by it whoever loaded them; "up" or "down" follows.
inline constexpr char GATE_PROGRAM[] = "jorn_gate_";

enum class tc_side { ingress, egress };
inline constexpr size_t TC_SIDE_COUNT = 2;
inline constexpr tc_side TC_SIDES[TC_SIDE_COUNT] = {tc_side::ingress, tc_side::egress};

struct tc_program {
    uint32_t id = 0;
    std::string name;
    std::string tag; // the kernel's hash of the instructions
    std::vector<uint32_t> map_ids;

    bool is_gate() const { return name.starts_with(GATE_PROGRAM); }
};

tc_program program_of(int fd);
// One that is attached there. Not valid where it went this moment, or isn't pinned and may not be
// looked at: it isn't the gate's then. Throws std::runtime_error.
unique_fd open_program(const std::string &pins, uint32_t id, unsigned if_index);

std::string interface_name(unsigned if_index); // its number where it has none any more
[[noreturn]] void fail_at(unsigned if_index, const std::string &what, int error);

} // namespace avcore
