// The answer in words, for people and as JSON.
#pragma once

#include "avwatch/why/documents.h"
#include "avwatch/why/facts.h"
#include "avwatch/why/fitting.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace avwatch {

struct answer {
    const loaded_documents &documents;
    const flow_facts &facts;
    const fitting_parts &fitting;
    std::optional<outcome> by_other_protocol; // that wasn't asked about, where it is another one
};

// Lines without line feeds of their own; names from the network aren't made printable yet, and may
// have some.
std::vector<std::string> lines_of(const answer &found);
nlohmann::ordered_json json_of(const answer &found);
// What would decide without what decides, and what makes that doubtful.
std::vector<labelled_text> what_else_of(const answer &found);

// Whether the same part decides the same.
bool is_same_decision(const outcome &one, const outcome &other);

// 0 it passes, 1 it is blocked, 2 nobody can say.
int status_of(const outcome &found);

} // namespace avwatch
