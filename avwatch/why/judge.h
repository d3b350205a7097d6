// What the daemon decides about a flow, found out by its own code: the commands of documents go
// through its handlers into a state of their own, a packet of the flow through its chain, and what
// the chain looked at is read afterwards.
//
// The daemon's code has one state in a process, so decisions are made one at a time, and each
// begins with an empty one. No file is written: no handler's follow-up runs, and the folder of the
// saved files is none. Meanwhile the process says nothing to the system's log, which would be in
// the daemon's words.
#pragma once

#include "avwatch/why/parts.h"
#include "avwatch/why/platform.h"
#include "jornctl/documents/documents.h"
#include "packet/records/context.h"
#include "platform/records.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace avwatch {

// A packet from the client, as the access point's kernel module shows it. Addresses are in network
// byte order, ports in host byte order.
struct judged_flow {
    std::array<uint8_t, 6> client_mac = {};
    uint32_t client_be = 0;
    uint32_t server_be = 0;
    uint16_t client_port = 0; // 0, which no definition has, where it isn't known
    uint16_t server_port = 0;
    uint8_t ip_proto = 0; // TCP or UDP
    av_pkt_trailer trailer = {};
};

// What the daemon has. A document that is tried comes behind the one in force and has its own
// tables in place of that one's.
struct configuration {
    jornctl::document in_force;
    jornctl::document tried;
    std::string port_services; // the text of their file
    bool dpi_engine = true;
};

// A profile that was asked for an application policy.
struct asked_profile {
    uint32_t utp_id;
    bool has_entry;               // in the table of UTPs
    std::optional<size_t> policy; // its place in the document
};

struct outcome {
    av_verdict verdict = {};
    app_source named_by = APP_SOURCE_NONE;
    bool is_webs = false; // the web decision owned it
    std::optional<size_t>
        web_policy;                 // that applied, by its place; whether or not it owned the flow
    std::optional<part> by;         // what decided; none: nothing fits
    std::optional<part> definition; // the administrator's application or port that named it
    std::array<asked_profile, 2> profiles = {}; // the client's, the server's
    std::string carrier_host; // Wi-Fi calling: the ePDG's name, where one is known
    std::string unanswered;   // the domain whose categories nobody knew; else empty

    bool passes() const { return verdict.verdict != AV_VERDICT_DENY; }
};

// With `gone` taken out of the documents; places are those of the whole. Throws refused
// for a document that has mistakes, std::runtime_error where memory is short.
outcome judge(const configuration &wanted, const part_set &gone, const judged_flow &flow,
              const platform_answers &answers);

} // namespace avwatch
