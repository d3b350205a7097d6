// Where web servers are looked for, of flows of which no name says more.
#pragma once

#include <cstdint>

constexpr bool is_web_port(uint16_t port) {
    return port == 80 || port == 443;
}
