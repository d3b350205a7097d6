#include "avwatch/export/record_maker.h"

#include "avwatch/base/shown_text.h"

#include <utility>

namespace avwatch {
namespace {

constexpr uint64_t US_PER_MS = 1'000;

uint8_t status_of(const flow_part &part) {
    if (part.counts[DENIED_PACKETS] != 0 || part.facts.is_denied)
        return DROPPED_BY_POLICY;
    return part.counts[LIMITED_PACKETS] != 0 ? DROPPED_BY_LIMIT : FORWARDED;
}

uint8_t event_of(const flow_part &part) {
    if (part.counts[DENIED_PACKETS] != 0 || part.facts.is_denied)
        return FLOW_DENIED;
    if (part.is_last)
        return FLOW_DELETED;
    return part.is_first ? FLOW_CREATED : FLOW_UPDATED;
}

exported_record common_of(const flow_part &part, const interfaces::interface &at,
                          const record_rules &rules) {
    const exported_flow &facts = part.facts;
    exported_record record;
    record.is_ipv6 = facts.is_ipv6;
    record.source = facts.client;
    record.destination = facts.server;
    record.source_port = facts.client_port;
    record.destination_port = facts.server_port;
    record.protocol = facts.protocol;
    record.begun_ms = part.begun_us / US_PER_MS;
    record.ended_ms = part.ended_us / US_PER_MS;
    record.ingress = at.index;
    record.end_reason = part.end_reason;
    record.status = status_of(part);
    record.event = event_of(part);
    record.application = part.application;
    record.station = facts.station;
    record.access_point = is_known(rules.access_point) ? rules.access_point : at.mac;
    record.utp = facts.utp;
    record.reason = shown_text(facts.reason);
    if (!rules.with_clients) {
        record.source = {};
        record.source_port = 0;
        record.station = {};
    }
    return record;
}

} // namespace

std::vector<exported_record> records_of(const flow_part &part, const interfaces::interface &at,
                                        const record_rules &rules) {
    std::vector<exported_record> records;
    exported_record record = common_of(part, at, rules);
    record.dscp = part.facts.dscp_up;
    record.packets = part.counts[UP_PACKETS];
    record.bytes = part.counts[UP_BYTES];
    record.dropped = part.counts[DENIED_PACKETS] + part.counts[LIMITED_PACKETS];
    if (record.packets != 0 || record.bytes != 0 || record.dropped != 0)
        records.push_back(record);
    record.from_client = false;
    std::swap(record.source, record.destination);
    std::swap(record.source_port, record.destination_port);
    std::swap(record.ingress, record.egress);
    record.dscp = part.facts.dscp_down;
    record.packets = part.counts[DOWN_PACKETS];
    record.bytes = part.counts[DOWN_BYTES];
    record.dropped = 0;
    if (record.packets != 0 || record.bytes != 0)
        records.push_back(record);
    return records;
}

} // namespace avwatch
