// The base MAC address of a machine that isn't an access point.
#pragma once

#include <cstddef>

inline constexpr size_t MAC_TEXT_SIZE = 18;

// The address of the interface of the lowest index that isn't loopback and has one, in capitals.
// Returns false when there is none.
bool machine_base_mac(char (&text)[MAC_TEXT_SIZE]);
