#include "avcore/enforce/holding.h"

#include "avcore/frames/wire_packets.h"

#include <utility>
#include <vector>

namespace avcore {
namespace {

constexpr ptrdiff_t TYPE_OFFSET = 12; // of an Ethernet frame's

// The kernel keeps one beside the frame.
void insert_tag(std::vector<uint8_t> &frame, const gate_copy &head) {
    if (head.vlan_type == 0 || frame.size() < TYPE_OFFSET)
        return;
    const uint16_t words[] = {head.vlan_type, head.vlan_tci};
    std::vector<uint8_t> tag;
    for (const uint16_t word : words) {
        tag.push_back(static_cast<uint8_t>(word >> 8));
        tag.push_back(static_cast<uint8_t>(word));
    }
    frame.insert(frame.begin() + TYPE_OFFSET, tag.begin(), tag.end());
}

} // namespace

holding::~holding() {
    tick(NEVER_MS - held_packets::BEHIND_MS);
}

bool holding::take(const gate_copy &head, std::span<const uint8_t> frame, int64_t now_ms) {
    const bool overdue = due_ms_of(head) <= now_ms;
    if (overdue && settings_.rules.fail_closed) {
        gate_.add_ending(&gate_endings::unjudged, pieces_of(head));
        return false;
    }
    if (!packets_.add(head, frame))
        gate_.add_ending(&gate_endings::crowded, pieces_of(head));
    else if (overdue && packets_.waits(head.flow))
        let_pass(head.flow, now_ms);
    return !overdue;
}

bool holding::decide(const gate_flow &flow, const gate_verdict &verdict, int64_t now_ms) {
    gate_verdict entry = verdict;
    bool done = false;
    bool was_held = packets_.knows(flow);
    do { // packets may be in the ring still, or be taken just now
        was_held = was_held || gate_.has_taken(flow);
        if (was_held)
            entry.flags |= GATE_WAS_HELD;
        done = gate_.decide(flow, entry);
    } while (!was_held && gate_.has_taken(flow));
    if (was_held)
        packets_.let_go(flow, verdict, now_ms); // behind it, for the gate goes by it
    return done;
}

// As if the daemon had said nothing yet.
void holding::let_pass(const gate_flow &flow, int64_t now_ms) {
    gate_verdict verdict = {};
    verdict.generation = gate_.generation();
    verdict.action = GATE_PASS;
    verdict.flags = GATE_NOT_YET_FINAL;
    decide(flow, verdict, now_ms);
}

void holding::put_back(const held_packet &packet) {
    const gate_copy &head = packet.head;
    const wire_layout layout = {.network = head.network,
                                .transport = head.transport,
                                .payload = head.payload,
                                .end = head.end,
                                .protocol = head.flow.proto,
                                .ipv6 = head.is_ipv6 != 0};
    uint64_t lost = pieces_of(head); // of a joined one that can't be cut all but one are
    for (std::vector<uint8_t> &frame : wire_packets(packet.frame, layout, head.segment_size)) {
        insert_tag(frame, head);
        lost -= gate_.put_back(head.if_index, std::move(frame));
    }
    if (lost > 0)
        gate_.add_ending(&gate_endings::unwritten, lost);
}

void holding::tick(int64_t now_ms) {
    while (const std::optional<gate_flow> flow = packets_.first_overdue(now_ms)) {
        if (!packets_.waits(*flow)) {
            gate_.decide(*flow, packets_.forget(*flow));
            gate_.forget_holds(*flow);
        } else if (!settings_.rules.fail_closed) {
            let_pass(*flow, now_ms);
        } else {
            gate_.add_ending(&gate_endings::unjudged, packets_.drop_overdue(*flow, now_ms));
        }
    }
}

} // namespace avcore
