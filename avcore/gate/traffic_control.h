// The gate's programs at the interfaces, by either of the kernel's ways: tcx where it has that,
// clsact else. Everything throws std::runtime_error with a reason for the user.
#pragma once

#include "avcore/gate/attach_way.h"
#include "avcore/gate/tc_program.h"
#include "shared/unique_fd.h"

#include <array>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace avcore {

// Throws where there is none, or where it has no Ethernet frames.
unsigned ethernet_interface(const std::string &name);

// `wanted`, or the better one that the kernel has.
attach_way way_to_attach(unsigned if_index, std::optional<attach_way> wanted);

// The gate's program there.
std::optional<tc_program> gate_at(const std::string &pins, unsigned if_index, tc_side side,
                                  attach_way way);
std::optional<tc_program> gate_at(const std::string &pins, unsigned if_index,
                                  tc_side side); // by any way
std::vector<attach_way> ways_of_gate(const std::string &pins, unsigned if_index, tc_side side);

void attach(const std::string &pins, unsigned if_index, tc_side side, attach_way way,
            int program_fd); // for an older one
void detach(const std::string &pins, unsigned if_index, tc_side side, attach_way way);

// What is in the kernel needn't be loaded and verified again for other interfaces.
struct gate_programs {
    attach_way way = attach_way::tcx;
    std::array<unique_fd, TC_SIDE_COUNT> fds;
};
gate_programs gate_programs_at(const std::string &pins,
                               unsigned if_index); // throws where there is no gate
void attach_all(const std::string &pins, unsigned if_index, const gate_programs &programs);

// False where there was none.
bool take_gate_from(const std::string &pins, unsigned if_index, attach_way way);
bool take_gate_from(const std::string &pins, unsigned if_index);

} // namespace avcore
