#include "avcore/flow_table.h"

#include "core/text/text.h"

namespace avcore {

flow_table::sighting flow_table::count_frame(const frame_facts &frame, size_t size) {
    const flow_id id = flow_id_of(frame);
    auto found = index_.find(id);
    if (found == index_.end()) {
        const bool from_client = rules_.sender_is_client(frame);
        if (rows_.size() >= limit_) {
            ++frames_without_row_;
            return {nullptr, from_client};
        }
        flow_row &row = rows_.emplace_back();
        row.id = static_cast<uint32_t>(rows_.size());
        row.client = from_client ? frame.sender : frame.receiver;
        row.server = from_client ? frame.receiver : frame.sender;
        row.ether_type = frame.ether_type;
        row.ip_proto = frame.ip_proto;
        row.ipv4 = frame.ipv4;
        found = index_.emplace(id, &row).first;
    }
    flow_row &row = *found->second;
    ++row.packets;
    row.bytes += size;
    const bool from_client =
        frame.ipv4 ? frame.sender.ip_be == row.client.ip_be && frame.sender.port == row.client.port
                   : frame.sender.mac == row.client.mac;
    return {&row, from_client};
}

void flow_table::set_verdict(flow_row &row, const av_verdict &verdict) {
    row.verdict = verdict.verdict;
    row.outdated = false;
    if (const std::string_view name = field_text(verdict.app_name); !name.empty())
        row.application = name;
}

void flow_table::outdate_verdicts() {
    for (flow_row &row : rows_)
        row.outdated = row.verdict != 0;
}

} // namespace avcore
