#include "avcore/watch/flow_object.h"

#include "avcore/flows/flow_text.h"
#include "avcore/watch/json_text.h"

#include <algorithm>

namespace avcore {
namespace {

constexpr const char *ENDINGS[] = {"", "fin", "reset", "idle", "forgotten", "stopped"};
constexpr const char *NAME_SOURCES[] = {
    "",     "dns",           "handshake",         "earlier handshake",
    "dpi",  "administrator", "address asked for", "carrier",
    "port", "tables"};
constexpr const char *VERDICT_SOURCES[] = {"", "application policy", "web policy", "late answer",
                                           "wifi calling"};
constexpr const char *EVENTS[] = {"begun", "named", "judged", "ended", "denied", "limited"};

template <typename Code>
const char *word_in(std::span<const char *const> words, Code code) {
    return words[static_cast<size_t>(code)];
}

// What the gate does to its packets.
const char *treatment_by(const gate &behind, const gate_flow &flow) {
    const std::optional<gate_verdict> verdict = behind.verdict_of(flow);
    if (!verdict)
        return "undecided";
    if (verdict->action == GATE_DENY)
        return "denies";
    if (verdict->bucket[GATE_UP] != 0 || verdict->bucket[GATE_DOWN] != 0)
        return "limits";
    return (verdict->flags & GATE_NOT_YET_FINAL) != 0 ? "undecided" : "passes";
}

void add_sides(json_object &object, const flow_row &row) {
    object.add("client", address_text(row, row.client));
    object.add("client_port", row.client.port);
    if (is_known(row.client.mac))
        object.add("client_mac", mac_text(row.client.mac));
    object.add("server", address_text(row, row.server));
    object.add("server_port", row.server.port);
    object.add("protocol", protocol_text(row));
    object.add("interface", row.client_interface);
    object.add("utp", row.client_utp);
}

void add_latest(json_object &object, const watched_flow &flow) {
    object.add("last_us", flow.seen.last_us);
    add_counts(object, flow.counts);
}

void add_end(json_object &object, const watched_flow &flow) {
    if (flow.is_over())
        object.add("ended", word_in(ENDINGS, flow.ending));
}

name_source source_of_name(const flow_row &row) {
    return shows_own_name(row) ? name_source::handshake : row.reason.named_by;
}

void add_source(json_object &object, name_source source) {
    if (source != name_source::none)
        object.add("named_by", word_in(NAME_SOURCES, source));
}

void append_why(std::string &out, const flow_row &row) {
    json_object object(out);
    const verdict_reason &why = row.reason;
    const name_source source = source_of_name(row);
    add_source(object, source);
    if (source == name_source::dns) {
        object.add("name", row.server_name);
        object.add("name_us", row.server_name_us);
    }
    if (source == name_source::engine) {
        object.add("app_id", why.app_id);
        object.add("cat_id", why.cat_id);
    }
    object.add("rule", row.client_rule);
    if (why.by != verdict_source::none)
        object.add("by", word_in(VERDICT_SOURCES, why.by));
    if (why.by == verdict_source::application_policy) {
        object.add("profile", why.profile);
        object.add("side", why.of_client ? "client" : "server");
    }
    if (!why.web_reason.empty())
        object.add("reason", why.web_reason);
    if (!why.denial_text.empty())
        object.add("text", why.denial_text);
}

} // namespace

bool is_known(const mac_address &mac) {
    return std::ranges::any_of(mac, [](uint8_t octet) { return octet != 0; });
}

void add_counts(json_object &object, const gate_counter &counts) {
    object.add_pair("up", counts.packets[GATE_UP], counts.bytes[GATE_UP]);
    object.add_pair("down", counts.packets[GATE_DOWN], counts.bytes[GATE_DOWN]);
    object.add_pair("dropped", counts.denied, counts.limited);
}

void append_flow(std::string &out, const watched_flow &flow, const gate *behind) {
    const flow_row &row = flow.known();
    json_object object(out);
    object.add("id", flow.id);
    add_sides(object, row);
    object.add("begun_us", flow.seen.begun_us);
    add_latest(object, flow);
    object.add("application", name_of(row));
    if (!row.host.empty())
        object.add("host", row.host);
    object.add("verdict", verdict_word(row.verdict));
    if (row.wificalling)
        object.add("wificalling", row.wfc_priority);
    if (row.outdated)
        object.add("outdated", true);
    if (flow.at_gate)
        object.add("gate", treatment_by(*behind, flow.key));
    if (row.dscp[0] != 0 || row.dscp[1] != 0)
        object.add_pair("dscp", row.dscp[0], row.dscp[1]);
    append_why(object.key("why"), row);
    add_end(object, flow);
}

void append_brief(std::string &out, const watched_flow &flow) {
    const flow_row &row = flow.known();
    json_object object(out);
    object.add("id", flow.id);
    if (is_known(row.client.mac))
        object.add("client_mac", mac_text(row.client.mac));
    else
        object.add("client", address_text(row, row.client));
    add_latest(object, flow);
    object.add("application", name_of(row));
    add_source(object, source_of_name(row));
    object.add("verdict", verdict_word(row.verdict));
    add_end(object, flow);
}

void append_count(std::string &out, const watched_flow &flow) {
    json_object object(out);
    object.add("id", flow.id);
    add_latest(object, flow);
    add_end(object, flow);
}

void append_sum(std::string &out, const sum_key &key, const sum_of_flows &sum) {
    json_object object(out);
    if (is_known(key.client_mac))
        object.add("client_mac", mac_text(key.client_mac));
    else if (!key.client.empty())
        object.add("client", key.client);
    object.add("application", key.application);
    object.add("verdict", verdict_word(key.verdict));
    object.add("flows", sum.flows);
    add_counts(object, sum.counts);
}

std::string_view word_of(flow_event what) {
    return word_in(EVENTS, what);
}

} // namespace avcore
