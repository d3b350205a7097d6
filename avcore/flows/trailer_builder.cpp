#include "avcore/flows/trailer_builder.h"

namespace avcore {

av_pkt_trailer build_trailer(const client_rules &rules, const client_profile &client,
                             const frame_facts &frame, const flow_table::sighting &flow) {
    const endpoint &server_side = flow.from_client ? frame.receiver : frame.sender;
    av_pkt_trailer trailer = trailer_between(client, rules.server(server_side), flow.from_client);
    trailer.flow_id = flow.row.id;
    return trailer;
}

} // namespace avcore
