// What the flow table keeps of a flow for its enforcement.
#pragma once

#include "avcore/records/gate_records.h"
#include "platform/records.h"

#include <cstdint>
#include <optional>

namespace avcore {

struct row_enforcement {
    std::optional<gate_flow> flow; // as the gate sees it
    uint32_t if_index = 0;         // of the client's interface
    bool settled = false;          // a verdict has decided it; the next one will do so at once
    bool denied = false;
    uint32_t generation = 0;               // of the verdict that is in force; 0 = none
    std::optional<gate_verdict> not_final; // the last one that was written before it was decided
    std::optional<av_qos> qos;             // of the last verdict on a frame
    uint32_t qos_generation = 0;           // of the policies that it comes from
};

} // namespace avcore
