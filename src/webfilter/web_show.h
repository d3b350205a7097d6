// The listings of URL filtering: what an interface and what a web UTP are filtered by.
#pragma once

#include "webfilter/records/web.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

// Command 32: answers with the state and the policy of an interface. Returns 0.
int jorn_process_per_intf_url_policy_list(int fd, std::string_view ifname);

// Command 33: answers with the entry and the policy of a web UTP. Returns 0.
int jorn_show_utp_web_policy(int fd, uint32_t utp_id);

// Writes a policy's part of both listings into `text` of `size` bytes. Categories go by the
// platform's names, by their numbers where it has none. What doesn't fit is cut at a whole line.
// Returns 0.
int jorn_format_web_policy_text(char *text, size_t size, const web_policy_wire &policy);
