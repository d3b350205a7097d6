// What the watch socket answers, a few messages at a time.
#pragma once

#include "avcore/base/named_count.h"
#include "avcore/frames/frame.h"
#include "avcore/gate/gate.h"
#include "avcore/watch/questions.h"
#include "avcore/watch/watched_flows.h"

#include <functional>
#include <memory>
#include <string>

namespace avcore {

// From whom answers come; all of it outlives them.
struct watch_sources {
    watched_flows &flows;
    const gate *behind; // null: there is none
    std::function<named_counts()> counts;
    std::function<std::string()> gate_state;                         // JSON; "null" without a gate
    std::function<std::string(const mac_address &client)> host_name; // empty: none is known
    std::function<std::string(const profile_question &asked)> profile; // JSON
};

class answer {
public:
    virtual ~answer() = default;
    virtual bool is_ready() const { return true; } // for `add_some`
    // Appends some messages, each with its end. False: these were the last ones.
    virtual bool add_some(std::string &out) = 0;
};

// They throw std::runtime_error, which says why there is none.
std::unique_ptr<answer> begin_answer(const watch_question &asked, const watch_sources &sources);
std::unique_ptr<answer> begin_answer(const profile_question &asked, const watch_sources &sources);

} // namespace avcore
