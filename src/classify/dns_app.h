// Naming a flow after the domain of one of its addresses, which the daemon's own DNS cache or the
// platform knows, and learning the address that an HTTP redirect points to.
#pragma once

#include "packet/records/context.h"

#include <cstdint>
#include <string_view>

// The detection step. In web mode only the web server's side of a flow (port 80 or 443) is looked
// up, and app_source stays. Returns JORN_DETECT_MATCH when app_name holds a name at the end,
// whoever wrote it.
int jorn_detect_pkt_dns_app(pkt_ctx *ctx, int web_mode);

// 1 for what looks like a dotted quad: 7 to 15 digits and dots, exactly three dots, none at either
// end, no number above 255. Numbers are read from the front as scanf would, so that what follows an
// empty one isn't looked at; that such a text is no address shows when it is converted. A missing
// text is none.
int jorn_is_valid_ipv4_string(const char *text);

// Finds an address among the first five "/"-separated pieces of a redirect's target. Returns 0 and
// the address in network byte order, or -1.
int jorn_parse_redirect_ip(std::string_view location, uint32_t *address_be);
