#include "avwatch/why/watched_facts.h"

#include "avcore/settings/client_rules.h"
#include "avwatch/base/failure.h"
#include "avwatch/base/units.h"
#include "avwatch/client/answers.h"
#include "avwatch/client/known_clients.h"
#include "avwatch/why/sides.h"
#include "core/text/text.h"

#include <algorithm>
#include <iterator>

namespace avwatch {
namespace {

using avcore::endpoint;
using avcore::ip_address;

constexpr char ENGINE[] = "the DPI engine";

std::string dns_source(uint64_t learnt_us, bool utc) {
    return learnt_us != 0 ? "DNS, learnt " + time_text(learnt_us, utc) : std::string("DNS");
}

// Who is meant, with a MAC address and an IP address as far as they are known. Of several addresses
// it is one of the server's kind, the latest.
endpoint known_endpoint(const known_clients &clients, const std::string &key,
                        const std::string &meant, const ip_address &server) {
    endpoint client = parse_client(key);
    const auto known = std::ranges::find(clients.all(), key, &known_client::key);
    if (known == clients.all().end())
        return client;
    if (!known->said.client_mac.empty())
        client.mac = parse_client(known->said.client_mac).mac;
    if (const std::optional<ip_address> named = ip_address::parse(meant)) {
        client.address = *named;
        return client;
    }
    std::optional<ip_address> first;
    for (const std::string &each : known->said.addresses) {
        const std::optional<ip_address> address = ip_address::parse(each);
        if (!address)
            continue;
        if (!first ||
            (address->is_ipv4() == server.is_ipv4() && first->is_ipv4() != server.is_ipv4()))
            first = address;
    }
    if (first)
        client.address = *first;
    return client;
}

bool is_called(const flow_record &flow, const std::string &name) {
    return std::ranges::any_of(
        std::initializer_list<std::string_view>{flow.application, flow.host, flow.why.name},
        [&](std::string_view each) { return equals_ignoring_case(each, name); });
}

// Whether it is the flow that is asked about; of what isn't given any will do.
bool is_meant(const flow_record &flow, const why_settings &asked) {
    if (!equals_ignoring_case(flow.protocol, "tcp") && !equals_ignoring_case(flow.protocol, "udp"))
        return false;
    if (!asked.protocol.empty() && !equals_ignoring_case(flow.protocol, asked.protocol))
        return false;
    if (asked.server.empty())
        return is_called(flow, asked.name);
    const endpoint server = parse_server(asked.server);
    return ip_address::parse(flow.server) == server.address &&
           (server.port == 0 || flow.server_port == server.port) &&
           (asked.name.empty() || is_called(flow, asked.name));
}

// The one seen last.
std::optional<flow_record> meant_flow(const std::vector<flow_record> &flows,
                                      const why_settings &asked) {
    const flow_record *found = nullptr;
    for (const flow_record &each : flows) {
        if (is_meant(each, asked) && (found == nullptr || each.last_us > found->last_us))
            found = &each;
    }
    return found != nullptr ? std::optional(*found) : std::nullopt;
}

uint32_t filter_bits(const std::vector<std::string> &words) {
    uint32_t bits = 0;
    for (const std::string &each : words) {
        if (each == "url")
            bits |= AV_FILTER_URL;
        else if (each == "wificalling")
            bits |= AV_FILTER_WIFICALLING;
        else if (each == "dpi")
            bits |= AV_FILTER_DPI;
    }
    return bits;
}

void take_profile(const profile_record &said, flow_facts &facts) {
    avcore::client_profile client;
    client.side = {said.interface, static_cast<uint32_t>(said.if_index),
                   static_cast<uint32_t>(said.utp)};
    for (size_t i = 0; i < std::min(said.web_utp.size(), std::size(client.web_utp)); ++i)
        client.web_utp[i] = static_cast<uint32_t>(said.web_utp[i]);
    client.filter_type = filter_bits(said.filter);
    const avcore::side_profile server = {said.server_interface,
                                         static_cast<uint32_t>(said.server_if_index),
                                         static_cast<uint32_t>(said.server_utp)};
    av_pkt_trailer &trailer = facts.flow.trailer;
    trailer = avcore::trailer_between(client, server, true);
    if ((trailer.filter_type & AV_FILTER_DPI) != 0)
        trailer.dpi_status = AV_DPI_MORE_PACKETS;
    facts.dpi_engine = said.engine;
    facts.interface = said.interface;
    facts.profile_source = said.rule.value_or(0) != 0 ? "[[rule]] " + std::to_string(*said.rule)
                                                      : std::string("[client]");
    facts.profile_source += " of avcore's configuration";
}

void take_categories(const std::vector<uint64_t> &known, const std::string &name,
                     flow_facts &facts) {
    urlf_answer answer = {};
    answer.status = known.empty() ? URLF_STATUS_NO_LIST : 0;
    for (const uint64_t each : known) {
        if (static_cast<size_t>(answer.category_count) < URLF_CATEGORIES)
            answer.categories[answer.category_count++] = static_cast<int32_t>(each);
    }
    facts.answers.categories = [answer, name](std::string_view domain) {
        return equals_ignoring_case(domain, name) ? std::optional(answer) : std::nullopt;
    };
}

// What the engine says of the flow, or a handshake in its place.
void take_engine_name(flow_facts &facts, const std::string &name, uint64_t app_id, uint64_t cat_id,
                      const std::string &source) {
    av_pkt_trailer &trailer = facts.flow.trailer;
    trailer.dpi_status = AV_DPI_IDENTIFIED;
    trailer.dpi_app_id = static_cast<uint16_t>(app_id);
    trailer.dpi_cat_id = static_cast<uint16_t>(cat_id);
    copy_text(trailer.dpi_app_name, name);
    facts.engine_source = source;
}

// The name that the daemon had for the flow, at the place where it had it from.
void take_flow_name(const flow_record &flow, flow_facts &facts, bool utc) {
    const why_record &why = flow.why;
    if (!flow.host.empty() && (facts.flow.trailer.filter_type & AV_FILTER_DPI) != 0)
        copy_text(facts.flow.trailer.kernel_domain, flow.host);
    if (why.named_by == "dns")
        take_name(facts, why.name.empty() ? flow.application : why.name,
                  dns_source(why.name_us, utc));
    else if (why.named_by == "handshake" || why.named_by == "earlier handshake")
        take_engine_name(facts, flow.application, 0, 0, "the " + why.named_by);
    else if (why.named_by == "dpi")
        take_engine_name(facts, flow.application, why.app_id, why.cat_id, ENGINE);
    else if (why.named_by == "address asked for")
        take_name(facts, flow.application, "the flow that is there");
    else if (why.named_by == "tables")
        take_name(facts, flow.application, "the daemon's own cache, or the port");
}

void take_flow(const flow_record &flow, flow_facts &facts) {
    if (const auto server = ip_address::parse(flow.server)) {
        facts.server.address = *server;
        facts.flow.server_be = shown_address(*server, flow_side::server);
    }
    facts.server.port = facts.flow.server_port = static_cast<uint16_t>(flow.server_port);
    facts.flow.client_port = static_cast<uint16_t>(flow.client_port);
    facts.flow.ip_proto = protocol_number(flow.protocol);
    facts.server_text = facts.server.address.text_with(facts.server.port);
    facts.protocol = flow.protocol;
    facts.notes.clear(); // the port is known
    facts.notes.push_back("the flow is there: verdict \"" + flow.verdict + '"' +
                          (flow.outdated ? ", outdated" : "") +
                          (flow.gate.empty() ? "" : ", the gate: " + flow.gate));
}

// What is asked about a flow that is there is asked by the host that it shows.
profile_question question_about(const flow_facts &facts, const why_settings &asked,
                                const std::optional<flow_record> &flow) {
    profile_question about;
    if (!facts.client.address.is_unspecified())
        about.client = facts.client.address.text();
    if (facts.client.mac != avcore::mac_address{})
        about.client_mac = avcore::mac_text(facts.client.mac);
    if (!facts.server.address.is_unspecified())
        about.server = facts.server.address.text();
    about.name = asked.name;
    if (about.name.empty() && flow)
        about.name = flow->host;
    return about;
}

std::string client_text(const std::string &meant, const endpoint &client) {
    std::string text = meant;
    const std::string mac =
        client.mac != avcore::mac_address{} ? avcore::mac_text(client.mac) : std::string();
    const std::string address =
        client.address.is_unspecified() ? std::string() : client.address.text();
    for (const std::string &each : {mac, address}) {
        if (!each.empty() && !equals_ignoring_case(each, meant))
            text += ", " + each;
    }
    return text;
}

} // namespace

flow_facts facts_from_avcore(const why_settings &asked, const invocation &around) {
    const settings read = read_settings(around.settings_file);
    watch_client avcore(around.watch_socket);
    avcore.wait_for_greeting(ANSWER_PATIENCE);
    const known_clients clients(read.aliases, ask_clients(avcore));
    const std::string key = clients.find(asked.client);
    const ip_address server =
        asked.server.empty() ? ip_address() : parse_server(asked.server).address;
    flow_facts facts = begin_facts(known_endpoint(clients, key, asked.client, server), asked);
    facts.client_text = client_text(asked.client, facts.client);
    watch_filter of_client;
    of_client.client = key;
    const std::optional<flow_record> flow = meant_flow(ask_flows(avcore, of_client), asked);
    if (flow)
        take_flow(*flow, facts);

    const profile_question about = question_about(facts, asked, flow);
    const std::optional<profile_record> said = ask_profile(avcore, about);
    if (!said)
        throw refused("avcore doesn't say what it has for this client: name its file with -c");
    take_profile(*said, facts);
    if (!said->name.empty())
        take_name(facts, said->name, dns_source(said->name_us, around.utc));
    if (!asked.name.empty())
        take_name(facts, asked.name, "--name");
    if (flow)
        take_flow_name(*flow, facts, around.utc);
    else if (!said->application.empty())
        take_engine_name(facts, said->application, said->app_id, said->cat_id,
                         std::string(ENGINE) + ", once it has seen the host");
    if (said->categories)
        take_categories(*said->categories, about.name.empty() ? said->name : about.name, facts);
    if (!asked.categories.empty())
        take_category_files(asked, facts);
    return facts;
}

} // namespace avwatch
