// The gate's maps, and what uses them. Everything throws std::runtime_error with a reason for the
// user.
#pragma once

#include "avcore/gate/traffic_control.h"
#include "avcore/records/enforce_settings.h"
#include "avcore/records/gate_records.h"
#include "shared/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace avcore {

// Its pin, or that of an attached program whose pin is lost. Not valid where there is none.
unique_fd find_map(const std::string &pins, const char *name);
unique_fd pinned_map(const std::string &pins, const char *name); // throws where there is none

uint32_t id_of_map(int fd); // 0: it is none
bool uses(const tc_program &program, uint32_t map_id);

void write_rules(gate_settings &settings, const gate_rules &rules);

size_t possible_processors(); // throws where /sys doesn't say

// Of this network namespace: index and name.
std::vector<std::pair<unsigned, std::string>> all_interfaces();

} // namespace avcore
