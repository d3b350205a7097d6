// Which side of a flow is the client, and what the trailer says about either side.
#pragma once

#include "avcore/frames/frame.h"
#include "avcore/settings/config.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace avcore {

class client_rules {
public:
    // `settings` outlives the rules. `captured_on` is the interface of a live capture, else empty.
    client_rules(const config &settings, std::string captured_on);

    // The frames that follow were captured on this interface.
    void capture_on(std::string_view interface) { captured_on_ = interface; }

    // Whether the sender of this frame is the flow's client: the first rule that names either side
    // says so; where none does, whoever sent the flow's first frame is.
    bool sender_is_client(const frame_facts &frame) const;

    // `rule`: counted from 1, as the file has them; 0: none fits, and the profile is everybody's.
    struct fitting {
        client_profile profile;
        size_t rule;
    };
    fitting fitting_of(const endpoint &client) const;
    // The side opposite the client: another client of a rule of its own, else the uplink.
    side_profile server(const endpoint &side) const;
    // As a flow has it: the file may leave open by which interface its client comes.
    client_profile complete(client_profile profile) const;

private:
    bool names(const client_rule &rule, const endpoint &side) const;
    bool fits_capture(const client_rule &rule) const;

    const config &settings_;
    std::string captured_on_;
};

// What the trailer of a flow's frame says of its two sides, and nothing else. The source side is
// the side that sent this frame, in both directions of the flow.
av_pkt_trailer trailer_between(const client_profile &client, const side_profile &server,
                               bool from_client);

} // namespace avcore
