// A TAP device: an interface whose frames come from a program, and which goes with it.
#pragma once

#include "shared/unique_fd.h"

#include <string>

namespace avcore {

inline constexpr char TAP_DEVICE[] = "/dev/net/tun";
inline constexpr unsigned TAP_MTU = 65'521; // its largest; with the link header 65,535

// Doesn't block. Not valid where the kernel has none; errno says why.
unique_fd open_tap_device();

// The interface, which is down. In `name` %d is given a number by the kernel. Returns 0 or an errno
// value.
int make_tap(int device, std::string &name);

// False where there is IPv6 and it can't be switched off.
bool switch_ipv6_off(const std::string &name);

} // namespace avcore
