// Safe search: the platform's DNS spoofing service answers the search hosts of Google, Bing and
// YouTube with the addresses that a web policy names, for the clients of a UTP or of an interface.
#pragma once

#include "webfilter/records/web.h"

#include <cstdint>

// Removes the mappings of all search hosts and installs those that the policy wants. Of `utp_id`
// and `ifname` one is given, the other 0 or none.
void jorn_process_safe_search(uint32_t utp_id, const char *ifname, const web_policy_wire &policy);
