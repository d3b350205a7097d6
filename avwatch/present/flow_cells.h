// How a flow is called in a line for people.
#pragma once

#include "avwatch/client/records.h"

#include <string>

namespace avwatch {

// "192.0.2.1:443", "[2001:db8::1]:443"; the address alone where the protocol has no ports.
std::string endpoint_text(const std::string &address, uint64_t port);
// "deny", "allow (outdated)", "none, wifi calling 3".
std::string verdict_text(const flow_record &flow);
// Who denied it and why: avcore's words, or what there is of them.
std::string reason_text(const why_record &why);

} // namespace avwatch
