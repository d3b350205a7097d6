// Sets the gate up: its programs and maps into the kernel, their pins, the programs to the
// interfaces.
#pragma once

#include "avcore/gate/attach_way.h"
#include "avcore/records/enforce_settings.h"
#include "shared/unique_fd.h"

#include <optional>
#include <string>
#include <vector>

namespace avcore {

// As gate's constructor says. One process at a time does it, from the look at what is there to the
// end, also when what it began is taken back. Returns the program for a way back (way_back.h).
unique_fd set_up_gate(const std::string &pins, const std::vector<std::string> &interfaces,
                      std::optional<attach_way> wanted, const gate_rules &first);

} // namespace avcore
