// A part of a flow as records: one for each direction in which something passed, and the one from
// the client where packets were dropped.
#pragma once

#include "avwatch/export/due_flows.h"
#include "avwatch/export/interfaces.h"
#include "avwatch/ipfix/exported_record.h"

#include <vector>

namespace avwatch {

struct record_rules {
    bool with_clients = true;                       // else nothing says who the client was
    exported_record::mac_address access_point = {}; // all zeros: the client's interface's
};

// `at`: the client's interface.
std::vector<exported_record> records_of(const flow_part &part, const interfaces::interface &at,
                                        const record_rules &rules);

} // namespace avwatch
