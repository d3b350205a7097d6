// All [[export]] tables' flows: who counts flows feeds them, and has what is due sent once it has
// stored what it counted. So nothing is told twice after a crash; what was stored and not sent by
// then is lost.
#pragma once

#include "avcore/base/loop.h"
#include "avwatch/export/application_ids.h"
#include "avwatch/export/due_flows.h"
#include "avwatch/export/exporter.h"
#include "avwatch/export/interfaces.h"
#include "avwatch/history/application_numbers.h"
#include "avwatch/history/export_rows.h"
#include "avwatch/settings/export_settings.h"

#include <cstdint>
#include <deque>
#include <vector>

namespace avwatch {

class exports {
public:
    explicit exports(const std::vector<export_settings> &settings);

    bool has_any() const { return !exporters_.empty(); }
    // How often a flow's counts are to be heard.
    uint32_t every_ms() const { return flows_.heard_every_ms(); }

    due_flows &flows() { return flows_; }
    application_numbers &numbers() { return numbers_; } // to be written before send()

    // Before flows are told: whether the wall's clock was set.
    void look_at_clocks();
    // What is due; where `all`, what there is.
    void send(int64_t now_ms, bool all = false);
    // All that waits is on its way, or it took too long.
    void finish();
    void add_to(avcore::loop &loop);

    std::vector<export_counts> counts() const;

private:
    application_numbers numbers_;
    application_ids ids_{numbers_};
    interfaces interfaces_;
    std::deque<exporter> exporters_; // they stay where they are
    due_flows flows_;
};

} // namespace avwatch
