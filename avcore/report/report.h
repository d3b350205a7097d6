// The closing report: the flows as an aligned table or as JSON, and the totals.
//
// A full table is long, and a reader of it may be slow: it is made and written a little at a time.
// A flow that leaves the table meanwhile may be missing.
//
// Names come from the daemon and, behind it, from whoever sent the traffic: what is printed holds
// no control characters.
#pragma once

#include "avcore/base/named_count.h"
#include "avcore/feed/feeder.h"
#include "avcore/flows/flow_table.h"
#include "avcore/flows/flow_text.h"
#include "avcore/flows/frame_builder.h"
#include "avcore/gate/gate.h"
#include "avcore/source/source.h"
#include "avcore/web/url_agent.h"

#include <array>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace avcore {

struct totals {
    source_counts source;
    feeder_counts feeder;
    size_t max_frame_size = 0;
    uint64_t malformed_messages = 0;
    uint64_t refused_safe_search = 0; // settings
    url_agent_counts agent;
    std::map<std::string, int32_t> switches; // what the daemon switched, printable
    bool engine_unasked = false;             // the DPI engine is there and no daemon asked for it
    frame_counts frames;
    uint64_t refused_writes = 0; // to the gate
};

// The flows that are in the table now, as they are when their turn comes. Behind a gate (else null)
// a flow's packets and bytes are those that passed it, beside them the packets that it dropped; the
// frames carried to the daemon are a few of them. JSON is one object a flow and line.
class row_writer {
public:
    row_writer(const flow_table &flows, const gate *gate, bool json);

    // Adds the lines of some rows, or none yet: a table's widths take a look at all rows first.
    // False when nothing is left to do.
    bool add_some(std::string &out);

    using table_line = std::array<std::string, 9>; // a cell for each column

private:
    const flow_row *next_row();
    bool add_object(std::string &out);
    void add_line(const table_line &line);
    bool take_line();
    bool lay_out_line(std::string &out);

    const flow_table &flows_;
    const gate *gate_;
    bool json_;
    std::vector<uint32_t> ids_;
    size_t next_ = 0; // of ids_
    flow_sum summed_; // when it began
    bool sum_due_;
    std::string lines_;   // of the table: cells, each with an end
    size_t laid_out_ = 0; // of lines_
    std::array<size_t, std::tuple_size_v<table_line>> widths_ = {};
};

// The totals by name; what the daemon switched isn't among them.
named_counts counts_of(const flow_table &flows, const totals &totals);

// The sum of bytes is of the frames carried.
void print_totals(std::ostream &out, const flow_table &flows, const totals &totals);

} // namespace avcore
