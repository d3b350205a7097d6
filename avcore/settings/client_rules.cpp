#include "avcore/settings/client_rules.h"

#include "core/text/text.h"

#include <utility>

namespace avcore {

client_rules::client_rules(const config &settings, std::string captured_on)
    : settings_(settings), captured_on_(std::move(captured_on)) {}

bool client_rules::fits_capture(const client_rule &rule) const {
    return rule.captured_on.empty() || rule.captured_on == captured_on_;
}

bool client_rules::names(const client_rule &rule, const endpoint &side) const {
    if (!rule.mac && !rule.network)
        return false;
    return fits_capture(rule) && (!rule.mac || *rule.mac == side.mac) &&
           (!rule.network || (!side.address.is_unspecified() && rule.network->holds(side.address)));
}

bool client_rules::sender_is_client(const frame_facts &frame) const {
    for (const client_rule &rule : settings_.rules) {
        if (names(rule, frame.sender))
            return true;
        if (names(rule, frame.receiver))
            return false;
    }
    return true;
}

client_rules::fitting client_rules::fitting_of(const endpoint &client) const {
    size_t number = 0;
    for (const client_rule &rule : settings_.rules) {
        ++number;
        const bool any_client = !rule.mac && !rule.network && fits_capture(rule);
        if (any_client || names(rule, client))
            return {complete(rule.profile), number};
    }
    return {complete(settings_.client), 0};
}

client_profile client_rules::complete(client_profile profile) const {
    if (profile.side.if_name.empty())
        profile.side.if_name = captured_on_.empty() ? UNSEEN_INTERFACE : captured_on_;
    return profile;
}

side_profile client_rules::server(const endpoint &side) const {
    for (const client_rule &rule : settings_.rules) {
        if (names(rule, side))
            return complete(rule.profile).side;
    }
    return settings_.uplink;
}

av_pkt_trailer trailer_between(const client_profile &client, const side_profile &server,
                               bool from_client) {
    const side_profile &source = from_client ? client.side : server;
    const side_profile &destination = from_client ? server : client.side;
    av_pkt_trailer trailer = {};
    trailer.dst_utp_id = destination.utp_id;
    trailer.src_utp_id = source.utp_id;
    trailer.trailer_word2 = client.web_utp[0];
    trailer.trailer_word3 = client.web_utp[1];
    trailer.dst_if_index = destination.if_index;
    trailer.src_if_index = source.if_index;
    copy_text(trailer.dst_if_name, destination.if_name);
    copy_text(trailer.src_if_name, source.if_name);
    trailer.filter_type = client.filter_type;
    return trailer;
}

} // namespace avcore
