// What the watch socket tells (docs/watch.md), member by member as there: times are microseconds
// since 1970, an empty text or a 0 is what a message leaves out.
//
// Whoever answers at the socket may be anybody, and names come from the network. A record is only
// made of a message whose members are of the right kind; then
// - numbers are 2^63 - 1 at most, so that a database's integers hold them;
// - texts are UTF-8 of 1,024 bytes at most, with whatever characters;
// - MAC and IP addresses are in one form each (base/addresses.h).
// That they make sense together nobody has checked: a count may have fallen, a time lie in the
// future.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace avwatch {

inline constexpr uint64_t WATCH_VERSION = 1; // of the messages that are understood here
inline constexpr char DENIED[] = "deny";     // a verdict
inline constexpr size_t CLIENTS_MAX = 4'096; // that avcore remembers by name

struct greeting_record {
    uint64_t version = 0;
    std::string run, boot;
    uint64_t started_us = 0;
    bool is_inline = false;
    std::string counts; // "wire" or "seen"

    // While it stays the same, flows keep their ids. Without a gate each run of avcore begins anew.
    std::string epoch() const { return counts == "seen" ? boot + '/' + run : boot; }

    bool operator==(const greeting_record &) const = default;
};

struct traffic {
    uint64_t packets = 0;
    uint64_t bytes = 0;

    bool operator==(const traffic &) const = default;
};

struct dropped_packets {
    uint64_t denied = 0;
    uint64_t limited = 0;

    bool operator==(const dropped_packets &) const = default;
};

struct count_record {
    std::string id; // of the flow
    uint64_t last_us = 0;
    traffic up, down;
    dropped_packets dropped;
    std::string ended; // empty: it hasn't
};

struct why_record {
    std::string named_by;
    uint64_t app_id = 0, cat_id = 0;
    std::string name;
    uint64_t name_us = 0;
    std::optional<uint64_t> rule; // 0: [client]
    std::string by;
    std::optional<uint64_t> profile; // a UTP
    std::string side;
    std::string reason;
    std::string text;

    bool operator==(const why_record &) const = default;
};

struct code_points { // of differentiated services, RFC 2474
    uint64_t up = 0, down = 0;

    bool operator==(const code_points &) const = default;
};

struct flow_record : count_record {
    std::string client; // an IP address, or a MAC address where the flow isn't IP's
    uint64_t client_port = 0;
    std::string client_mac; // may be missing
    std::string server;
    uint64_t server_port = 0;
    std::string protocol;
    std::string interface;
    uint64_t utp = 0;
    uint64_t begun_us = 0;
    std::string application;
    std::string host;
    std::string verdict;
    std::optional<uint64_t> wificalling; // its priority
    bool outdated = false;
    std::string gate;
    code_points dscp; // of the last packets that avcore saw
    why_record why;
};

// What is counted of a flow, and for whom.
struct brief_record : count_record {
    std::string client_mac;
    std::string client; // where there is no MAC address
    std::string application;
    std::string named_by;
    std::string verdict;
};

struct sum_record {
    std::string client_mac;
    std::string client; // where there is no MAC address
    std::string application;
    std::string verdict;
    uint64_t flows = 0; // of which nothing else was told
    traffic up, down;
    dropped_packets dropped;
};

struct client_record {
    std::string client_mac;             // may be missing,
    std::vector<std::string> addresses; // and then there is an address; the latest first
    std::string interface;
    uint64_t utp = 0;
    std::string host_name; // its own word
    uint64_t flows = 0;
    traffic up, down;
    dropped_packets dropped;
    uint64_t last_us = 0;
};

struct event_record {
    std::string what;
    uint64_t us = 0;
    std::optional<flow_record> flow;
    std::string state;
    std::string interface;
};

struct profile_record {
    std::optional<uint64_t> rule; // 0: [client]
    std::string interface;
    uint64_t utp = 0, if_index = 0;
    std::string server_interface;
    uint64_t server_utp = 0, server_if_index = 0;
    std::vector<uint64_t> web_utp;   // two, or none
    std::vector<std::string> filter; // "url", "wificalling", "dpi"
    bool engine = false;
    std::string name;
    uint64_t name_us = 0;
    std::string application; // of the engine's for hosts of that name; may be empty
    uint64_t app_id = 0, cat_id = 0;
    std::optional<std::vector<uint64_t>> categories; // nothing: nobody could be asked
};

using counts_record = std::map<std::string, uint64_t>; // what isn't a number is left out

// Each reads an object, or returns nothing where it isn't such a record.
std::optional<greeting_record> greeting_of(const nlohmann::json &object);
std::optional<flow_record> flow_of(const nlohmann::json &object);
std::optional<brief_record> brief_of(const nlohmann::json &object);
std::optional<count_record> count_of(const nlohmann::json &object);
std::optional<sum_record> sum_of(const nlohmann::json &object);
std::optional<client_record> client_of(const nlohmann::json &object);
std::optional<event_record> event_of(const nlohmann::json &object);
std::optional<profile_record> profile_of(const nlohmann::json &object);
std::optional<counts_record> counts_of(const nlohmann::json &object);

// The other way, for who prints them as JSON: with the members that the record has a value for.
nlohmann::ordered_json object_of(const greeting_record &greeting);
nlohmann::ordered_json object_of(const flow_record &flow);
nlohmann::ordered_json object_of(const client_record &client);
nlohmann::ordered_json object_of(const event_record &event);

// On one line, in ASCII: no name steers the terminal.
std::string to_line(const nlohmann::ordered_json &object);

} // namespace avwatch
