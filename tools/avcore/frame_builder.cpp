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
    built_frame built;
    std::vector<uint8_t> &bytes = built.frame.bytes;
    bytes.reserve(captured.bytes.size() + sizeof(av_pkt_trailer));
    bytes.assign(captured.bytes.begin(), captured.bytes.end());
    bytes.resize(captured.bytes.size() + sizeof(av_pkt_trailer));

    const frame_facts frame = decode_frame(bytes);
    const flow_table::sighting flow = flows_.count_frame(frame, captured.bytes.size());
    av_pkt_trailer trailer = build_trailer(rules_, frame, flow);
    built.lesson = inspect(frame, captured, flow.row, trailer);
    time_us_ = captured.time_us;
    note_frame(flow.row, names_, built.lesson);
    names_.learn(built.lesson.answer, time_us_);
    names_.learn(built.lesson.host, time_us_);
    memcpy(bytes.data() + captured.bytes.size(), &trailer, sizeof trailer);
    built.frame.key = frame.key;
    built.frame.flow = flow.row.id;
    return built;
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
