// What both kinds of connection want from the kernel.
#pragma once

namespace avcore {

// Of either direction: two messages, so that little is lost with a connection and a peer that
// doesn't read keeps little.
inline constexpr int SOCKET_BUFFER_SIZE = 32'768;

void set_option(int fd, int level, int option, int value);

// A connection whose other side vanished without a word, idle or not, ends within some six seconds.
void watch_for_death(int fd);

} // namespace avcore
