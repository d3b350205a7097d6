#include "avcore/frame_builder.h"

#include "avcore/roam_flows.h"
#include "avcore/trailer_builder.h"

#include <cstring>
#include <utility>

namespace avcore {
namespace {

constexpr uint16_t DNS_PORT = 53;

} // namespace

frame_builder::frame_builder(const config &settings, const std::string &captured_on)
    : rules_(settings, captured_on),
      flows_(rules_),
      dpi_(settings.dpi ? std::make_unique<dpi_engine>() : nullptr) {}

frame_builder::built_frame frame_builder::build(const captured_frame &captured) {
    if (!captured.captured_on.empty())
        rules_.capture_on(captured.captured_on);
    fed_frame fed;
    std::vector<uint8_t> &bytes = fed.bytes;
    bytes.reserve(captured.bytes.size() + sizeof(av_pkt_trailer));
    bytes.assign(captured.bytes.begin(), captured.bytes.end());
    bytes.resize(captured.bytes.size() + sizeof(av_pkt_trailer));

    frame_facts frame = decode_frame(bytes);
    if (captured.copy != nullptr)
        frame.sender_is_client = captured.copy->direction == GATE_UP;
    const flow_table::sighting flow = flows_.count_frame(frame, captured.bytes.size());
    av_pkt_trailer trailer = build_trailer(rules_, frame, flow);
    name_lesson lesson = inspect(frame, captured, flow.row, trailer);
    time_us_ = captured.time_us;
    note_frame(flow.row, names_, lesson);
    names_.learn(lesson.answer, time_us_);
    names_.learn(lesson.host, time_us_);
    memcpy(bytes.data() + captured.bytes.size(), &trailer, sizeof trailer);
    fed.key = frame.key;
    fed.flow = flow.row.id;
    fed.number_in_flow = flow.row.packets;
    return {std::move(fed), std::move(lesson), flow};
}

// Completes the row and the trailer with what the packet itself shows.
name_lesson frame_builder::inspect(const frame_facts &frame, const captured_frame &captured,
                                   flow_row &row, av_pkt_trailer &trailer) {
    name_lesson lesson;
    lesson.time_us = captured.time_us;
    const std::span<const uint8_t> packet = ipv4_packet(captured.bytes);
    if (packet.empty())
        return lesson;
    if (frame.sender.port == DNS_PORT)
        lesson.answer = read_dns_answer(udp_payload(packet));
    if (!dpi_)
        return lesson;
    const shown_host shown = dpi_->inspect(frame, packet, captured.time_us, trailer);
    row.host = shown.host;
    if (shown.just_taken)
        lesson.host = {frame.sender.ip_be, host_name_in(shown.host).value_or("")};
    return lesson;
}

} // namespace avcore
