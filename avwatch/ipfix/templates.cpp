#include "avwatch/ipfix/templates.h"

#include <algorithm>
#include <span>

namespace avwatch {
namespace {

constexpr uint16_t OWN = 0x8000; // of an element: its enterprise's number follows
constexpr size_t IPV4_SIZE = 4;
constexpr uint16_t REASON_SIZE = 64;

enum own_element : uint16_t { OWN_UTP = 1, OWN_REASON = 2 };

template <auto Member, uint16_t Size>
void append_member(std::string &out, const exported_record &record) {
    append_number(out, uint64_t{record.*Member}, Size);
}
template <auto Member>
void append_octets(std::string &out, const exported_record &record) {
    out.append((record.*Member).begin(), (record.*Member).end());
}
template <auto Member>
void append_ipv4(std::string &out, const exported_record &record) {
    out.append((record.*Member).end() - IPV4_SIZE, (record.*Member).end());
}

using row = exported_record;

constexpr record_field IPV4_ADDRESSES[] = {
    {8, 4, append_ipv4<&row::source>},       // sourceIPv4Address
    {12, 4, append_ipv4<&row::destination>}, // destinationIPv4Address
};
constexpr record_field IPV6_ADDRESSES[] = {
    {27, 16, append_octets<&row::source>},      // sourceIPv6Address
    {28, 16, append_octets<&row::destination>}, // destinationIPv6Address
};
constexpr record_field COMMON[] = {
    {7, 2, append_member<&row::source_port, 2>},       // sourceTransportPort
    {11, 2, append_member<&row::destination_port, 2>}, // destinationTransportPort
    {4, 1, append_member<&row::protocol, 1>},          // protocolIdentifier
    {195, 1, append_member<&row::dscp, 1>},            // ipDiffServCodePoint
    {61, 1,
     [](std::string &out, const row &from) {
         append_number(out, from.from_client ? 0 : 1, 1); // flowDirection
     }},
    {1, 8, append_member<&row::bytes, 8>},      // octetDeltaCount
    {2, 8, append_member<&row::packets, 8>},    // packetDeltaCount
    {133, 8, append_member<&row::dropped, 8>},  // droppedPacketDeltaCount
    {152, 8, append_member<&row::begun_ms, 8>}, // flowStartMilliseconds
    {153, 8, append_member<&row::ended_ms, 8>}, // flowEndMilliseconds
    {10, 4, append_member<&row::ingress, 4>},   // ingressInterface
    {14, 4, append_member<&row::egress, 4>},    // egressInterface
    {136, 1, append_member<&row::end_reason, 1>},
    {89, 1, append_member<&row::status, 1>},
    {233, 1, append_member<&row::event, 1>},
};
constexpr record_field SHORT_ID = {
    95, 3, [](std::string &out, const row &from) { append_application(out, from.application); }};
constexpr record_field LONG_ID = {95, 5, SHORT_ID.append};
constexpr record_field STATION = {365, 6, append_octets<&row::station>};    // staMacAddress
constexpr record_field SOURCE = {56, 6, append_octets<&row::station>};      // sourceMacAddress
constexpr record_field DESTINATION = {80, 6, append_octets<&row::station>}; // destinationMacAddress
constexpr record_field ACCESS_POINT = {367, 6, append_octets<&row::access_point>}; // wtpMacAddress
constexpr record_field OWN_ELEMENTS[] = {
    {OWN_UTP, 4, append_member<&row::utp, 4>, true},
    {OWN_REASON, REASON_SIZE,
     [](std::string &out, const row &from) { append_text(out, from.reason, REASON_SIZE); }, true},
};

// Of an options template: its scope comes first.
struct options_template {
    uint16_t id;
    std::vector<std::pair<uint16_t, uint16_t>> fields; // elements and their sizes
};

std::vector<options_template> options() {
    constexpr std::pair<uint16_t, uint16_t> description = {94, APPLICATION_DESCRIPTION_SIZE};
    constexpr std::pair<uint16_t, uint16_t> name = {96, APPLICATION_NAME_SIZE};
    return {{SHORT_APPLICATIONS, {{95, 3}, description, name}},
            {LONG_APPLICATIONS, {{95, 5}, description, name}},
            {INTERFACES, {{10, 4}, {82, INTERFACE_NAME_SIZE}}},
            {SAMPLING, {{149, 4}, {34, 4}, {304, 2}, {305, 4}, {306, 4}}}};
}

void add(std::vector<record_field> &fields, std::span<const record_field> more) {
    fields.insert(fields.end(), more.begin(), more.end());
}

bool continues_character(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

} // namespace

std::vector<record_field> flow_fields(uint16_t bits, const ipfix_layout &layout) {
    std::vector<record_field> fields;
    if ((bits & IPV6) != 0)
        add(fields, IPV6_ADDRESSES);
    else
        add(fields, IPV4_ADDRESSES);
    add(fields, COMMON);
    fields.push_back((bits & LONG_APPLICATION) != 0 ? LONG_ID : SHORT_ID);
    if (layout.with_clients) {
        fields.push_back(STATION);
        fields.push_back((bits & TO_CLIENT) != 0 ? DESTINATION : SOURCE);
    }
    fields.push_back(ACCESS_POINT);
    if (layout.enterprise)
        add(fields, OWN_ELEMENTS);
    return fields;
}

uint16_t flow_template_of(const exported_record &record) {
    unsigned bits = record.from_client ? 0u : unsigned{TO_CLIENT};
    bits |= has_long_id(record.application) ? LONG_APPLICATION : 0u;
    bits |= record.is_ipv6 ? IPV6 : 0u;
    return static_cast<uint16_t>(FLOW_TEMPLATES + bits);
}

std::string flow_templates(const ipfix_layout &layout) {
    std::string out;
    for (uint16_t bits = 0; bits < FLOW_TEMPLATE_COUNT; ++bits) {
        const std::vector<record_field> fields = flow_fields(bits, layout);
        append_number(out, uint64_t{FLOW_TEMPLATES} + bits, 2);
        append_number(out, fields.size(), 2);
        for (const record_field &each : fields) {
            append_number(out, each.is_own ? each.element | OWN : each.element, 2);
            append_number(out, each.size, 2);
            if (each.is_own)
                append_number(out, *layout.enterprise, 4);
        }
    }
    return out;
}

std::vector<std::string> options_templates() {
    std::vector<std::string> all;
    for (const options_template &each : options()) {
        std::string &out = all.emplace_back();
        append_number(out, each.id, 2);
        append_number(out, each.fields.size(), 2);
        append_number(out, 1, 2); // of them the scope
        for (const auto &[element, size] : each.fields) {
            append_number(out, element, 2);
            append_number(out, size, 2);
        }
    }
    return all;
}

void append_number(std::string &out, uint64_t value, size_t size) {
    for (size_t i = size; i-- > 0;)
        out += static_cast<char>(value >> 8 * i);
}

void append_text(std::string &out, std::string_view text, size_t size) {
    size_t end = std::min(text.size(), size);
    while (end != 0 && end != text.size() && continues_character(text[end]))
        --end;
    out.append(text.substr(0, end)).append(size - end, '\0');
}

void append_end(std::string &out, std::string_view text, size_t size) {
    if (text.size() > size)
        text.remove_prefix(text.size() - size);
    while (!text.empty() && continues_character(text.front()))
        text.remove_prefix(1);
    out.append(text).append(size - text.size(), '\0');
}

void append_application(std::string &out, const application_id &id) {
    append_number(out, id.engine, 1);
    append_number(out, id.number, has_long_id(id) ? 4 : 2);
}

bool has_long_id(const application_id &id) {
    return id.engine != NDPI_ENGINE;
}

} // namespace avwatch
