// The answer in words, for people and as JSON.
#pragma once

#include "avwatch/why/documents.h"
#include "avwatch/why/facts.h"
#include "avwatch/why/fitting.h"

#include <nlohmann/json.hpp>
#include <string>

namespace avwatch {

struct answer {
    const loaded_documents &documents;
    const flow_facts &facts;
    const fitting_parts &fitting;
};

// Lines with line feeds; names from the network aren't made printable yet.
std::string text_of(const answer &found);
nlohmann::ordered_json json_of(const answer &found);

// 0 it passes, 1 it is blocked, 2 nobody can say.
int status_of(const outcome &found);

} // namespace avwatch
