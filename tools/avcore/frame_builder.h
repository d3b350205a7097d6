// What the access point's kernel module makes of a frame that passes: it counts it in its flow, has
// the DPI engine look at it, notes what it says about names, and appends the trailer.
#pragma once

#include "avcore/client_rules.h"
#include "avcore/config.h"
#include "avcore/dns_names.h"
#include "avcore/dpi.h"
#include "avcore/feeder.h"
#include "avcore/flow_table.h"
#include "avcore/source.h"

#include <memory>
#include <string>

namespace avcore {

class frame_builder {
public:
    // `settings` outlives the builder. `captured_on` is the interface of a live capture, else
    // empty. Throws std::runtime_error.
    frame_builder(const config &settings, const std::string &captured_on);

    struct built_frame {
        fed_frame frame;
        name_lesson lesson;
        flow_table::sighting flow;
    };
    built_frame build(const captured_frame &captured);

    flow_table &flows() { return flows_; }
    int64_t time_us() const { return time_us_; } // of the last frame's capture
    bool has_engine() const { return dpi_ != nullptr; }

private:
    name_lesson inspect(const frame_facts &frame, const captured_frame &captured, flow_row &row,
                        av_pkt_trailer &trailer);

    client_rules rules_;
    flow_table flows_;
    dns_names names_; // as of the last frame, like the rows; the daemon isn't there yet
    int64_t time_us_ = 0;
    std::unique_ptr<dpi_engine> dpi_; // null: switched off
};

} // namespace avcore
