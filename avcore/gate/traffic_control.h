// The gate's programs at the interfaces: attached to the kernel's traffic control (clsact), at a
// priority and with a handle of their own, so that they can be told from what others attached.
#pragma once

#include "shared/unique_fd.h"

#include <array>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace avcore {

// Programs are known by it whoever loaded them; "up" or "down" follows.
inline constexpr char GATE_PROGRAM[] = "jorn_gate_";
inline constexpr uint32_t GATE_PRIORITY = 7; // the kernel's own choice starts at 49152

enum class tc_side { ingress, egress };
inline constexpr tc_side TC_SIDES[] = {tc_side::ingress, tc_side::egress};

struct tc_program {
    uint32_t id = 0;
    std::string name;
    std::string tag; // the kernel's hash of the instructions
    std::vector<uint32_t> map_ids;
};

struct tc_filter {
    uint32_t priority = 0;
    std::string kind;
    std::string name;       // of a BPF program
    bool redirects = false; // one of its actions does; of a BPF program nobody knows
};

tc_program program_of(int fd);

// Throws where there is none, or where it has no Ethernet frames.
unsigned ethernet_interface(const std::string &name);

// The gate's program there. Throws where what stands in its place is somebody else's.
std::optional<tc_program> gate_at(unsigned if_index, tc_side side);
// True when the interface had no clsact and got one.
bool make_hooks(unsigned if_index);
// Only where nothing is attached to them any more.
void remove_hooks(unsigned if_index);
void attach(unsigned if_index, tc_side side, int program_fd); // in the place of an older one
void detach(unsigned if_index, tc_side side);

// By TC_SIDES, for other interfaces: what is in the kernel needn't be loaded and verified again.
using gate_programs = std::array<unique_fd, std::size(TC_SIDES)>;
gate_programs gate_programs_at(unsigned if_index); // throws where there is no gate
void attach_all(unsigned if_index, const gate_programs &programs);
// False where there was none.
bool take_gate_from(unsigned if_index);

std::vector<tc_filter> filters_at(unsigned if_index, tc_side side);

} // namespace avcore
