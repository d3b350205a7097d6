// What `avwatch why` is asked.
#pragma once

#include "avwatch/client/records.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace avwatch {

// For people; neither is made showable.
using labelled_text = std::pair<std::string, std::string>;

struct why_settings {
    std::string client;      // as known_clients::find takes it
    std::string server;      // as parse_server takes it; may be empty
    std::string name;        // what the server is called; empty: as others say
    std::string protocol;    // tcp or udp; empty: as the flow has it that is there, else tcp
    std::string policy_file; // a document to try; empty: the one in force
    std::string config_file; // of avcore
    std::string captured_on; // the interface that rules of that file may name
    std::vector<std::string> categories; // FILE or FILE=CATEGORY, as avcore takes them
    // Which flow of the client's is meant; none: the one that the others fit.
    std::function<bool(const flow_record &flow)> is_flow;
    bool as_json = false;
};

} // namespace avwatch
