// One datagram on a local socket, and a descriptor with it.
#pragma once

#include <cstddef>
#include <span>
#include <sys/types.h>

namespace avcore {

// As send(2) without waiting and without a signal. The descriptor stays the sender's; -1: none.
ssize_t send_message(int fd, std::span<const std::byte> datagram, int descriptor = -1);

} // namespace avcore
