// Command 4: what quality-of-service treatment an ARC policy gives to each of its applications.
#pragma once

#include "control/records/arc.h"

#include <cstddef>
#include <cstdint>

inline constexpr size_t TRAFFIC_TYPE_SIZE = 11; // the longest name with its NUL

// Writes the name of a traffic type (0 to 3, the access categories of IEEE 802.11e) into `text`,
// which has room for TRAFFIC_TYPE_SIZE bytes; any other code leaves it empty and is noted in the
// log.
void jorn_check_traffic_type(char *text, uint8_t code);

// Builds the listing of the policy's rules in use, in rule order, into `text` of `size` bytes.
void jorn_check_priority(char *text, size_t size, const arc_policy *policy);

// Answers with the first policy of that id (1 to 64), or that the id is invalid. Returns 0.
int jorn_process_cmd_check_priority(int fd, uint32_t arc_policy_id);
