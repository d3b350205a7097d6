// What the client of a TCP connection says first: a ClientHello in the records of TLS (RFC
// 8446, 5.1), which may be cut anywhere, or the head of an HTTP request (RFC 9112), read as servers
// read it that take what they can make sense of.
#pragma once

#include "avcore/hello/client_hello.h"
#include "avcore/hello/handshake.h"

namespace avcore {

struct stream_hello {
    handshake in = handshake::none;
    client_hello hello; // of HTTP: whole with the host that is asked for, and its port
};

// Reads a stream that begins with these bytes.
stream_hello read_stream_hello(byte_view stream);

} // namespace avcore
