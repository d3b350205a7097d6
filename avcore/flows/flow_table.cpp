#include "avcore/flows/flow_table.h"

#include "avcore/engine/dpi.h"
#include "core/text/text.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace avcore {
namespace {

// The daemon names a flow after its addresses when it knows nothing better.
std::string application_text(const flow_row &row, std::string_view name) {
    if (!row.ipv4 || row.server.address.is_ipv4())
        return std::string(name);
    return with_real_addresses(name, [&row](uint32_t ip_be) -> std::optional<ip_address> {
        for (const endpoint *side : {&row.client, &row.server}) {
            if (side->ip_be == ip_be)
                return side->address;
        }
        return std::nullopt;
    });
}

} // namespace

void flow_table::sum_up_oldest() {
    flow_row &oldest = rows_.back();
    ++summed_.flows;
    summed_.packets += oldest.packets;
    summed_.bytes += oldest.bytes;
    by_id_.erase(oldest.id);
    index_.erase(oldest.sides);
    if (on_leave_)
        on_leave_(std::move(oldest));
    rows_.pop_back();
}

flow_table::row_ref flow_table::add(const flow_id &sides, const frame_facts &frame) {
    if (rows_.size() >= limit_)
        sum_up_oldest();
    const bool from_client = frame.sender_is_client.value_or(rules_.sender_is_client(frame));
    flow_row &row = rows_.emplace_front();
    row.id = ++last_id_;
    ++all_.flows;
    row.sides = sides;
    row.client = from_client ? frame.sender : frame.receiver;
    row.server = from_client ? frame.receiver : frame.sender;
    row.ether_type = frame.ether_type;
    row.ip_proto = frame.ip_proto;
    row.ipv4 = frame.ipv4;
    index_.emplace(sides, rows_.begin());
    by_id_.emplace(row.id, rows_.begin());
    return rows_.begin();
}

flow_table::sighting flow_table::count_frame(const frame_facts &frame, size_t size) {
    const flow_id sides = flow_id_of(frame);
    const auto known = index_.find(sides);
    const row_ref found = known != index_.end() ? known->second : add(sides, frame);
    rows_.splice(rows_.begin(), rows_, found);
    flow_row &row = *found;
    if (!frame.is_damaged) {
        ++row.packets;
        row.bytes += size;
        ++all_.packets;
        all_.bytes += size;
    }
    const bool from_client =
        frame.ipv4 ? frame.sender.ip_be == row.client.ip_be && frame.sender.port == row.client.port
                   : frame.sender.mac == row.client.mac;
    row.dscp[from_client ? 0 : 1] = frame.dscp;
    return {row, from_client};
}

flow_row *flow_table::set_verdict(uint32_t id, const av_verdict &verdict,
                                  const av_pkt_trailer &trailer) {
    const auto found = by_id_.find(id);
    if (found == by_id_.end())
        return nullptr;
    flow_row &row = *found->second;
    row.verdict = verdict.verdict;
    row.outdated = false;
    if (const std::string_view name = field_text(verdict.app_name); !name.empty())
        row.application = application_text(row, name);
    row.wificalling = verdict.wificalling_f == AV_DECIDED_BY_WIFICALLING;
    row.wfc_priority = row.wificalling ? verdict.qos.mark_type : 0;
    // The web's goes by the host that the client showed, whatever the administrator calls it.
    const bool by_administrator =
        verdict.match_info != 0 && verdict.wificalling_f != AV_DECIDED_BY_WEB;
    row.own_name_first = !row.wificalling && !by_administrator && !names_application(trailer);
    row.wfc_fqdn = row.wificalling ? field_text(verdict.wfc_fqdn) : std::string_view();
    return &row;
}

std::vector<flow_row *> flow_table::set_application(const av_app_setting &setting) {
    std::vector<flow_row *> rows;
    flow_id id = flow_id_of(setting.flow_key);
    for (const flow_id::side client : flow_id::SIDES) {
        id.client = client;
        if (const auto found = index_.find(id); found != index_.end())
            rows.push_back(&*found->second);
    }
    unknown_ += rows.empty();
    for (flow_row *row : rows) {
        row->verdict =
            setting.verdict == AV_SET_APP_ALLOW ? uint32_t{AV_VERDICT_ALLOW} : setting.verdict;
        row->outdated = false;
        if (const std::string_view name = field_text(setting.name);
            !name.empty() && name != AV_ANY_APPLICATION)
            row->application = application_text(*row, name);
    }
    return rows;
}

void flow_table::outdate_verdicts() {
    for (flow_row &row : rows_)
        row.outdated = row.verdict != 0;
}

std::vector<const flow_row *> flow_table::rows() const {
    std::vector<const flow_row *> rows;
    rows.reserve(rows_.size());
    for (const flow_row &row : rows_)
        rows.push_back(&row);
    std::sort(rows.begin(), rows.end(),
              [](const flow_row *a, const flow_row *b) { return a->id < b->id; });
    return rows;
}

std::vector<flow_row *> flow_table::rows_where(const std::function<bool(const flow_row &)> &holds) {
    std::vector<flow_row *> rows;
    for (flow_row &row : rows_)
        if (holds(row))
            rows.push_back(&row);
    return rows;
}

const flow_row *flow_table::find(uint32_t id) const {
    const auto found = by_id_.find(id);
    return found != by_id_.end() ? &*found->second : nullptr;
}

} // namespace avcore
