// The filters at an interface's clsact, and which of them are the gate's. Asked over rtnetlink.
#pragma once

#include "avcore/gate/gate_records.h"

#include <cstdint>
#include <string>
#include <vector>

namespace avcore {

// Where the gate's filters stand.
inline constexpr uint32_t GATE_FILTER_HANDLE = 0x6A6F726E;
inline constexpr uint16_t GATE_FILTER_PRIORITY = 10;
inline constexpr char GATE_PROGRAM_UP[] = "jorn_gate_up";
inline constexpr char GATE_PROGRAM_DOWN[] = "jorn_gate_down";

struct tc_filter {
    std::string kind; // "bpf", "flower"
    std::string name; // of a bpf program, with its number
    uint16_t priority = 0;
    uint32_t handle = 0;

    bool is_gate() const;
};

// Those of one way through the interface; none where there is no clsact.
std::vector<tc_filter> filters_at(int if_index, gate_direction direction);

// Attaches the program, in place of the gate's one that may be there. Throws std::runtime_error.
void attach_gate(const std::string &interface, int if_index, gate_direction direction,
                 int program_fd);
// Both ways, and takes clsact away where nothing else is attached.
void detach_gate(int if_index);

} // namespace avcore
