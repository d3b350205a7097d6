#include "avcore/flows/roam_flows.h"

#include "core/text/text.h"
#include "platform/records.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <iterator>
#include <utility>

namespace avcore {
namespace {

constexpr int64_t RECENT_US = 300'000'000;

// What DNS called the server, or else the daemon, whose own names are of the same kind: it has them
// also from the access point that the station came from.
const std::string &name_of(const flow_row &row) {
    const bool has_daemons = row.server_name.empty() && row.reason.named_by == name_source::tables;
    return has_daemons ? row.application : row.server_name;
}

roam_flow record_of(const flow_row &row) {
    roam_flow record = {};
    record.server_index = 1;
    record.flow_tag = row.id;
    record.port_a = htons(row.client.port);
    record.port_b = htons(row.server.port);
    record.ipv4[0] = row.client.ip_be;
    record.ipv4[1] = row.server.ip_be;
    copy_text(record.server_name, name_of(row));
    return record;
}

} // namespace

void note_frame(flow_row &row, const dns_names &names, int64_t time_us) {
    const bool first = row.packets == 1;
    row.last_us = time_us;
    if (const std::string *name = first ? names.find(row.server.address, row.last_us) : nullptr) {
        row.server_name = *name;
        row.server_name_us = names.learnt_us(row.server.address);
    }
}

std::vector<std::byte> answer_roam_flows(const flow_table &flows, int64_t now_us,
                                         const question &asked) {
    roam_notify notify;
    if (asked.body.size() != sizeof notify)
        return make_answer(asked, -1);
    memcpy(&notify, asked.body.data(), sizeof notify);
    mac_address station;
    memcpy(station.data(), notify.sta_mac, station.size());

    std::vector<const flow_row *> found;
    for (const flow_row *row : flows.rows()) {
        // A stand-in means nothing to another access point.
        if (row->ipv4 && row->server.address.is_ipv4() && row->client.mac == station &&
            now_us - row->last_us <= RECENT_US && !name_of(*row).empty())
            found.push_back(row);
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const flow_row *a, const flow_row *b) { return a->last_us > b->last_us; });
    const auto count = static_cast<uint32_t>(std::min<size_t>(found.size(), ROAM_FLOWS_MAX));
    std::vector<std::byte> body(sizeof count + count * sizeof(roam_flow));
    memcpy(body.data(), &count, sizeof count);
    for (uint32_t i = 0; i < count; ++i) {
        const roam_flow record = record_of(*found[i]);
        memcpy(body.data() + sizeof count + i * sizeof record, &record, sizeof record);
    }
    return make_answer(asked, 0, body);
}

// What the daemon wouldn't take a name from is left out as it comes.
void named_servers::add(std::string_view topic, std::span<const std::byte> payload,
                        int64_t now_ms) {
    roam_message message = {};
    if (topic != ROAM_TOPIC || payload.empty() || payload.size() > sizeof message)
        return;
    memcpy(&message, payload.data(), payload.size());
    for (const roam_flow &flow :
         std::span(message.flows).first(std::min<size_t>(message.count, ROAM_FLOWS_MAX)))
        if (flow.server_index < std::size(flow.ipv4) && addresses_be_.size() < MAX)
            addresses_be_.insert(flow.ipv4[flow.server_index]);
    if (due_ms_ == NEVER_MS)
        due_ms_ = now_ms + DELAY_MS;
}

std::vector<flow_row *> named_servers::take_flows(flow_table &flows) {
    due_ms_ = NEVER_MS;
    const std::set<uint32_t> named = std::exchange(addresses_be_, {});
    return flows.rows_where([&named](const flow_row &row) {
        const bool worse =
            row.reason.named_by == name_source::none || row.reason.named_by == name_source::port;
        return worse && row.ipv4 && row.server.address.is_ipv4() &&
               named.contains(row.server.ip_be);
    });
}

} // namespace avcore
