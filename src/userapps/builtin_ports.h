// The built-in port services: well-known services by port range and protocol, the last that
// detection asks.
//
// The table is read from its first row on, and the first row that fits a packet wins; it is written
// in that order for the people who maintain it, overlaps allowed. The look-up doesn't walk it: the
// rows are cut into disjoint ranges of ports at compile time, a list for each protocol, and
// searched by halves. A new service is a row in builtin_ports.cpp.
#pragma once

#include "packet/records/context.h"
#include "userapps/records/apps.h"

inline constexpr size_t BUILTIN_PORT_APPS = 111;

// Behind the services stands a row that ends the table: ports 0xFFFFFFFF, no flags, no name.
extern const port_service builtin_port_app_table[BUILTIN_PORT_APPS + 1];

// Names the packet after the first row that fits, in lower case; a packet that has a name already
// gets it as its second one. Returns 1 when there is such a row, else 0.
int jorn_detect_pkt_builtin_port_service_app(pkt_ctx *pkt);
