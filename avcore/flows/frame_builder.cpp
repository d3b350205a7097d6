#include "avcore/flows/frame_builder.h"

#include "avcore/flows/roam_flows.h"
#include "avcore/flows/trailer_builder.h"
#include "avcore/frames/ipv6_frame.h"
#include "avcore/frames/tcp_checksum.h"
#include "avcore/names/dhcp.h"
#include "core/text/text.h"
#include "packet/decode/cursor.h"

#include <cstring>
#include <linux/if_ether.h>
#include <netinet/in.h>
#include <utility>

namespace avcore {
namespace {

constexpr uint16_t DNS_PORT = 53;

// IEEE 802.1Q, and what older switches took for an outer tag.
bool is_tag(uint16_t type) {
    return type == ETH_P_8021Q || type == ETH_P_8021AD || type == ETH_P_QINQ1;
}

// The gate looks behind the tags of VLANs, the daemon behind one at most. `plain` is where a frame
// without them is put together.
std::span<const uint8_t> without_tags(std::span<const uint8_t> frame, std::vector<uint8_t> &plain) {
    constexpr size_t TYPE_OFFSET = 12;
    constexpr size_t TAG_SIZE = 4;
    const byte_view view(frame.data(), frame.size());
    size_t type_at = TYPE_OFFSET;
    while (view.holds(type_at + 2) && is_tag(view.u16(type_at)))
        type_at += TAG_SIZE;
    if (type_at == TYPE_OFFSET || type_at > frame.size())
        return frame;
    plain.assign(frame.begin(), frame.begin() + TYPE_OFFSET);
    plain.insert(plain.end(), frame.begin() + static_cast<ptrdiff_t>(type_at), frame.end());
    return plain;
}

// By a host that the flow itself hasn't shown.
void call_after(const std::string &host, av_pkt_trailer &trailer) {
    if ((trailer.filter_type & AV_FILTER_URL) != 0) {
        copy_text(trailer.kernel_domain, host);
        return;
    }
    trailer.dpi_status = AV_DPI_IDENTIFIED;
    trailer.dpi_app_id = 0;
    trailer.dpi_cat_id = 0;
    copy_text(trailer.dpi_app_name, host);
}

void note_profile(flow_row &row, const client_rules::fitting &client) {
    row.client_interface = client.profile.side.if_name;
    row.client_utp = client.profile.side.utp_id;
    row.client_rule = client.rule;
}

bool looks_like_stand_in(const endpoint &side) {
    return side.address.is_reserved() && side.ip_be != INADDR_BROADCAST;
}

} // namespace

frame_builder::frame_builder(const config &settings, const std::string &captured_on)
    : rules_(settings, captured_on),
      resolvers_(settings),
      flows_(rules_),
      dpi_(settings.dpi ? std::make_unique<dpi_engine>() : nullptr) {}

// Puts the frame that the daemon is shown into `bytes`, with room for the trailer.
std::optional<frame_facts> frame_builder::show(std::span<const uint8_t> captured,
                                               std::vector<uint8_t> &bytes) {
    const std::optional<ipv6_packet> ipv6 = find_ipv6_packet(captured);
    bytes.reserve(captured.size() + sizeof(av_pkt_trailer));
    if (!ipv6) {
        bytes.assign(captured.begin(), captured.end());
    } else if (!ipv6->source.is_ipv4() && !ipv6->destination.is_ipv4()) {
        const uint32_t source_be = stand_ins_.stand_in_for(ipv6->source);
        const uint32_t destination_be = stand_ins_.stand_in_for(ipv6->destination);
        write_as_ipv4(*ipv6, source_be, destination_be, bytes);
    } else {
        ++counts_.reserved;
        return std::nullopt;
    }
    bytes.resize(bytes.size() + sizeof(av_pkt_trailer));

    frame_facts frame = decode_frame(bytes);
    if (ipv6) {
        frame.sender.address = ipv6->source;
        frame.receiver.address = ipv6->destination;
        counts_.unwalked += !ipv6->walked;
    } else if (looks_like_stand_in(frame.sender) || looks_like_stand_in(frame.receiver)) {
        ++counts_.reserved;
        return std::nullopt;
    }
    return frame;
}

std::optional<frame_builder::built_frame> frame_builder::build(const captured_frame &captured) {
    if (captured.copy != nullptr)
        rules_.capture_on(captured.captured_on);
    fed_frame fed;
    std::vector<uint8_t> &bytes = fed.bytes;
    std::vector<uint8_t> plain;
    const std::span<const uint8_t> untagged =
        captured.copy != nullptr ? without_tags(captured.bytes, plain) : captured.bytes;
    const uint64_t stand_ins_taken = stand_ins_.taken();
    std::optional<frame_facts> frame = show(untagged, bytes);
    if (!frame)
        return std::nullopt;
    if (captured.copy != nullptr) {
        const uint16_t segment_size = captured.copy->segment_size;
        frame->sender_is_client = captured.copy->direction == GATE_UP;
        frame->segment_size = frame->ip_proto == IPPROTO_UDP ? segment_size : uint16_t{0};
        // The kernel checks what it joins.
        frame->is_damaged = segment_size == 0 && has_damaged_segment(untagged);
    }

    const size_t shown_size = bytes.size() - sizeof(av_pkt_trailer);
    const std::span<const uint8_t> packet = ipv4_packet(std::span(bytes).first(shown_size));
    if (const auto segment = tcp_segment_in(packet))
        frame->tcp_flags = segment->flags;
    const flow_table::sighting flow = flows_.count_frame(*frame, captured.bytes.size());
    if (!frame->is_damaged)
        note_life(flow.row.life, *frame, flow.from_client, captured.bytes.size(), captured.time_us);
    const client_rules::fitting client =
        rules_.fitting_of(flow.from_client ? frame->sender : frame->receiver);
    note_profile(flow.row, client);
    av_pkt_trailer trailer = build_trailer(rules_, client.profile, *frame, flow);
    name_lesson lesson = {captured.time_us, {}};
    const int64_t time_before_us = std::exchange(time_us_, captured.time_us);
    note_frame(flow.row, names_, time_us_);
    if (!packet.empty()) {
        lesson.answer = read_names(*frame, packet, captured);
        read_client_name(*frame, packet);
        if (dpi_)
            inspect(*frame, packet, time_us_, flow.row, trailer, fed.engine_done);
    }
    lesson.has_news = names_.has_news(lesson.answer, time_before_us) ||
                      (stand_ins_.taken() != stand_ins_taken && has_known_side(*frame));
    names_.learn(lesson.answer, time_us_);
    memcpy(bytes.data() + shown_size, &trailer, sizeof trailer);
    fed.key = frame->key;
    fed.flow = flow.row.id;
    fed.number_in_flow = flow.row.packets;
    fed.from_client = flow.from_client;
    return built_frame{std::move(fed), std::move(lesson), flow};
}

// By expired names, too.
bool frame_builder::has_known_side(const frame_facts &frame) const {
    return names_.expiry_us(frame.sender.address) || names_.expiry_us(frame.receiver.address);
}

frame_counts frame_builder::counts() const {
    frame_counts counts = counts_;
    counts.answers_refused = resolvers_.refused();
    return counts;
}

void frame_builder::read_client_name(const frame_facts &frame, std::span<const uint8_t> packet) {
    if (!frame.sender_is_client.value_or(true) || frame.ip_proto != IPPROTO_UDP ||
        frame.receiver.port != DHCP_SERVER_PORT || frame.sender.port != DHCP_CLIENT_PORT)
        return;
    std::string name = host_name_in_request(udp_payload(packet), frame.sender.mac);
    if (!name.empty())
        client_names_.learn(frame.sender.mac, std::move(name));
}

// A capture may have been made anywhere, and show answers without their questions.
dns_answer frame_builder::read_names(const frame_facts &frame, std::span<const uint8_t> packet,
                                     const captured_frame &captured) {
    const std::span<const uint8_t> message = udp_payload(packet);
    if (captured.copy != nullptr && frame.receiver.port == DNS_PORT)
        resolvers_.saw_question(frame, *captured.copy, message, captured.time_us);
    dns_answer answer;
    if (frame.sender.port == DNS_PORT)
        answer = read_dns_answer(message);
    if (captured.copy != nullptr && !answer.findings.empty() &&
        !resolvers_.may_teach(frame, *captured.copy, answer, captured.time_us))
        answer = {};
    return answer;
}

// Completes the row and the trailer with what the packet itself shows.
void frame_builder::inspect(const frame_facts &frame, std::span<const uint8_t> packet,
                            int64_t time_us, flow_row &row, av_pkt_trailer &trailer,
                            bool &engine_done) {
    const auto look = [&](std::span<const uint8_t> one) {
        const shown_host host = dpi_->inspect(frame, one, time_us, trailer);
        row.host = host.host;
        row.own_name = host.name;
        engine_done = host.engine_done;
        const bool of_server = host.just_taken && frame.sender.address == row.server.address;
        if (const auto name = of_server ? flow_name_in(host.host) : std::nullopt)
            shown_.put(row.client.mac, sides_of(row), *name, time_us);
    };
    if (frame.segment_size == 0) {
        look(packet);
    } else {
        // A client may have thousands joined to one copy; the engine looks at no more of a flow.
        constexpr size_t most = dpi_engine::MAX_OTHER_PACKETS;
        const av_pkt_trailer unseen = trailer;
        for (const std::vector<uint8_t> &one : cut_datagrams(packet, frame.segment_size, most)) {
            trailer = unseen;
            look(one);
        }
    }
    const bool through = engine_done || dpi_engine::had_enough(row.ip_proto, row.packets);
    if (through && row.host.empty() && !frame.redirects && !names_application(trailer))
        name_by_earlier_flow(row, time_us, trailer);
}

frame_builder::acquaintance frame_builder::sides_of(const flow_row &row) {
    return {row.client.mac, row.client.address, row.server.address};
}

void frame_builder::name_by_earlier_flow(const flow_row &row, int64_t time_us,
                                         av_pkt_trailer &trailer) const {
    if (names_.find(row.server.address, time_us) != nullptr)
        return;
    if (const std::string *host = shown_.find(sides_of(row), time_us))
        call_after(*host, trailer);
}

} // namespace avcore
