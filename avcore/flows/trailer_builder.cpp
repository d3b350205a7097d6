#include "avcore/flows/trailer_builder.h"

#include "core/text/text.h"

namespace avcore {

av_pkt_trailer build_trailer(const client_rules &rules, const client_profile &client,
                             const frame_facts &frame, const flow_table::sighting &flow) {
    const endpoint &server_side = flow.from_client ? frame.receiver : frame.sender;
    const side_profile &server = rules.server(server_side);
    const side_profile &source = flow.from_client ? client.side : server;
    const side_profile &destination = flow.from_client ? server : client.side;

    av_pkt_trailer trailer = {};
    trailer.dst_utp_id = destination.utp_id;
    trailer.src_utp_id = source.utp_id;
    trailer.trailer_word2 = client.web_utp[0];
    trailer.trailer_word3 = client.web_utp[1];
    trailer.dst_if_index = destination.if_index;
    trailer.src_if_index = source.if_index;
    copy_text(trailer.dst_if_name, destination.if_name);
    copy_text(trailer.src_if_name, source.if_name);
    trailer.flow_id = flow.row.id;
    trailer.filter_type = client.filter_type;
    return trailer;
}

} // namespace avcore
