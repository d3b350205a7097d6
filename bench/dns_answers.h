// The names that a capture's DNS answers give: what a platform that watched it would answer.
#pragma once

#include "frames.h"

#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>

// By address, in network byte order.
using name_table = std::unordered_map<uint32_t, std::string>;

// Takes the A records of a DNS answer in this frame, if it carries one, under the name that was
// asked for.
void collect_dns_names(std::span<const uint8_t> frame, name_table &names);
