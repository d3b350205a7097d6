// One flow in words: what it is, what it has used, why it has its name and its verdict.
#pragma once

#include "avwatch/client/records.h"
#include "avwatch/present/flow_sums.h"

#include <string>
#include <utility>
#include <vector>

namespace avwatch {

// A label and a text, neither made showable; without a label the text goes on.
using explained_line = std::pair<std::string, std::string>;

std::vector<explained_line> explain_flow(const flow_record &flow, const std::string &client,
                                         const traffic_rates &now, bool utc);

} // namespace avwatch
