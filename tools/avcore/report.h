// The closing report: the flows as an aligned table or as JSON, and the totals.
//
// Names come from the daemon and, behind it, from whoever sent the traffic: what is printed holds
// no control characters.
#pragma once

#include "avcore/feeder.h"
#include "avcore/flow_table.h"
#include "avcore/frame_builder.h"
#include "avcore/gate/gate.h"
#include "avcore/source.h"
#include "avcore/url_agent.h"

#include <iosfwd>
#include <map>
#include <string>

namespace avcore {

struct totals {
    source_counts source;
    feeder_counts feeder;
    size_t max_frame_size = 0;
    uint64_t malformed_messages = 0;
    uint64_t unknown_flows = 0;       // of the daemon's verdicts by flow key
    uint64_t refused_safe_search = 0; // settings
    url_agent_counts agent;
    std::map<std::string, int32_t> switches; // what the daemon switched, printable
    bool engine_unasked = false;             // the DPI engine is there and no daemon asked for it
    frame_counts frames;
    uint64_t refused_writes = 0; // to the gate
};

// "CLIENT (MAC) to SERVER (PROTOCOL)".
std::string flow_text(const flow_row &row);

// Behind a gate (else null) a flow's packets and bytes are those that passed it, beside them the
// packets that it dropped; the frames carried to the daemon are a few of them.
void print_table(std::ostream &out, const flow_table &flows, const gate *gate);
// One object a flow and line.
void print_json(std::ostream &out, const flow_table &flows, const gate *gate);
// The sum of bytes is of the frames carried.
void print_totals(std::ostream &out, const flow_table &flows, const totals &totals);

} // namespace avcore
