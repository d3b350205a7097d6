// Who may look, and from which pages.
//
// Loopback without more. Anybody else needs the token or what stands for it (tickets.h). And since
// a browser lets any site's page send requests to whatever its user reaches:
// - a request must name this machine by an IP address, as "localhost" or by one of `hosts`. A name
//   that somebody else answers for could become ours while a page of theirs is open;
// - a request that says that another site's page made it is refused, but for the click that leads
//   to the page, or to it by a link.
#pragma once

#include "avwatch/page/exchange.h"
#include "avwatch/page/tickets.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace avwatch {

struct access_settings {
    std::vector<std::string> hosts; // names by which this machine is asked for
    std::string token;              // empty: only loopback
    bool is_encrypted = false;
};

class page_access {
public:
    explicit page_access(access_settings settings) : settings_(std::move(settings)) {}

    // What is said to who may not; nothing to who may.
    std::optional<page_reply> refusal(const page_request &asked, int64_t now_s) const;
    // The answer to a link's request: the cookie, where the ticket is a good one. Whoever it is.
    page_reply enter(const page_request &asked, int64_t now_s);

    // For requests that anybody may make who reaches us: of the right host and from no other site.
    std::optional<page_reply> stranger_refusal(const page_request &asked) const;

private:
    bool is_known(const page_request &asked, int64_t now_s) const;

    const access_settings settings_;
    ticket_counter tickets_;
};

// "ap.example" of "AP.example.:8080"; "[::1]" of "[::1]:8080".
std::string host_name_of(const std::string &host);

} // namespace avwatch
