// What is known of the flow that is asked about, and from where: the packet, and what the platform
// would say of it.
#pragma once

#include "avcore/frames/frame.h"
#include "avwatch/why/judge.h"
#include "avwatch/why/settings.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace avwatch {

struct flow_facts {
    judged_flow flow;
    platform_answers answers;
    bool dpi_engine = true;
    bool is_there = false;        // avcore has such a flow,
    std::string standing_verdict; // and this verdict, in its word, as policies are now

    // For who asked, in words.
    avcore::endpoint client;
    avcore::endpoint server;
    std::string client_text;
    std::string server_text; // with its port
    std::string protocol;
    std::string interface;
    std::string profile_source;                     // what gave the client's profile
    std::map<std::string, std::string> dns_sources; // by name, as a verdict has it
    std::string host_source;                        // of the host that the trailer has
    std::string engine_source; // of what the trailer says that the DPI engine found
    std::vector<std::string> notes;

    // A text of the daemon's with the real addresses where it was shown others.
    std::string shown(std::string_view text) const;
};

// The sides of the flow and its protocol, and nothing else yet. Throws refused.
flow_facts begin_facts(const avcore::endpoint &client, const why_settings &asked);

// What DNS calls an address, which is in network byte order.
void take_dns_name(flow_facts &facts, uint32_t address_be, const std::string &name,
                   const std::string &source);
// What the client shows the server, which is seen where there is a DPI engine.
void take_host(flow_facts &facts, const std::string &host, const std::string &source);
// What the engine says of the flow; without numbers it is the host that the server took, which
// avcore doesn't put in the way of the web filter.
void take_engine_name(flow_facts &facts, const std::string &name, uint64_t app_id, uint64_t cat_id,
                      const std::string &source);
// The server's name of a flow that isn't there yet.
void take_expected_name(flow_facts &facts, const std::string &name, const std::string &source);

// Throws avcore::config_error.
void take_category_files(const why_settings &asked, flow_facts &facts);

// All of it, from avcore's configuration and lists of categories; of the client the MAC address or
// the IP address is given. Throws refused, and avcore::config_error for files.
flow_facts facts_from_files(const std::string &client, const why_settings &asked);

} // namespace avwatch
