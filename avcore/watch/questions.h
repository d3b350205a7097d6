// What readers of the watch socket ask: lines of JSON, out of which come questions, or why there is
// none. Whoever connects may send anything.
#pragma once

#include "avcore/base/ip_address.h"
#include "avcore/frames/frame.h"
#include "avcore/watch/watched_flows.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace avcore {

inline constexpr size_t MAX_QUESTION = 4'096; // bytes of a line, with its end

// Of flows; all that is said must fit.
struct flow_filter {
    std::optional<mac_address> client_mac;
    std::optional<ip_address> client;
    std::string name;        // a part of the application's or the host's; in small letters, as is
    std::string application; // the whole of it
    std::string verdict;     // its word
    std::optional<int64_t> since_us;

    bool fits(const watched_flow &flow) const;
};

enum class asked_thing { flows, clients, counts, gate };

struct watch_question {
    uint32_t id;
    asked_thing what;
    flow_filter filter;
};

// Whatever is asked about has a client and a server.
struct profile_question {
    uint32_t id;
    endpoint client; // without MAC address, or without address, where only the other was said
    std::optional<ip_address> server;
    std::string name;             // may be empty where there is a server
    std::optional<uint64_t> rule; // that a flow of the client's has; there may be none any more
};

struct follow_wish {
    uint32_t id;
    bool flows = false;
    bool events = false;
    bool brief = false; // what who counts flows needs of them
    int64_t every_ms = 1'000;
    std::optional<int64_t> ended_within_ms = {}; // before it came
    flow_filter filter;
};

struct refusal {
    std::optional<uint32_t> id; // none was said
    std::string why;
};

using watch_line = std::variant<watch_question, profile_question, follow_wish, refusal>;
watch_line read_question(std::string_view line);

} // namespace avcore
