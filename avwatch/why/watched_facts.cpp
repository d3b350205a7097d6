#include "avwatch/why/watched_facts.h"

#include "avcore/settings/client_rules.h"
#include "avwatch/base/failure.h"
#include "avwatch/base/units.h"
#include "avwatch/client/answers.h"
#include "avwatch/client/known_clients.h"
#include "avwatch/why/sides.h"
#include "core/text/text.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <map>
#include <memory>
#include <utility>

namespace avwatch {
namespace {

using avcore::endpoint;
using avcore::ip_address;

constexpr char ENGINE[] = "the DPI engine";
constexpr char HANDSHAKE[] = "the flow's own handshake";
constexpr uint16_t HTTP_PORT = 80;
constexpr uint16_t HTTPS_PORT = 443;

std::string dns_source(uint64_t learnt_us, bool utc) {
    return learnt_us != 0 ? "DNS, learnt " + time_text(learnt_us, utc) : std::string("DNS");
}

// The address by which a client is meant: it is given, or is an alias's. One of the server's kind.
std::optional<ip_address> meant_address(const client_aliases &aliases, const std::string &meant,
                                        const ip_address &server) {
    const auto alias = aliases.find(meant);
    const auto address = ip_address::parse(alias != aliases.end() ? alias->second : meant);
    const bool may_reach =
        address && (server.is_unspecified() || address->is_ipv4() == server.is_ipv4());
    return may_reach ? address : std::nullopt;
}

// The latest of its addresses, one of the server's kind where there is one.
ip_address likely_address(const client_record &said, const ip_address &server) {
    std::optional<ip_address> first;
    for (const std::string &each : said.addresses) {
        const std::optional<ip_address> address = ip_address::parse(each);
        if (!address)
            continue;
        if (!first ||
            (address->is_ipv4() == server.is_ipv4() && first->is_ipv4() != server.is_ipv4()))
            first = address;
    }
    return first.value_or(ip_address());
}

// Who is meant, with a MAC address and an IP address as far as they are known.
endpoint known_endpoint(const known_clients &clients, const std::string &key,
                        const std::optional<ip_address> &meant, const ip_address &server) {
    endpoint client = parse_client(key);
    const known_client *known = clients.with_key(key);
    if (known != nullptr && !known->said.client_mac.empty())
        client.mac = parse_client(known->said.client_mac).mac;
    if (meant)
        client.address = *meant;
    else if (known != nullptr)
        client.address = likely_address(known->said, server);
    return client;
}

endpoint endpoint_of(const flow_record &flow) {
    endpoint client = parse_client(flow.client);
    if (!flow.client_mac.empty())
        client.mac = parse_client(flow.client_mac).mac;
    return client;
}

bool is_called(const flow_record &flow, const std::string &name) {
    return std::ranges::any_of(
        std::initializer_list<std::string_view>{flow.application, flow.host, flow.why.name},
        [&](std::string_view each) { return equals_ignoring_case(each, name); });
}

// Whether it is the flow that is asked about; of what isn't given any will do.
bool is_meant(const flow_record &flow, const why_settings &asked) {
    if (asked.is_flow)
        return asked.is_flow(flow);
    if (!equals_ignoring_case(flow.protocol, "tcp") && !equals_ignoring_case(flow.protocol, "udp"))
        return false;
    if (!asked.protocol.empty() && !equals_ignoring_case(flow.protocol, asked.protocol))
        return false;
    const endpoint server = parse_server(asked.server);
    return (server.address.is_unspecified() || ip_address::parse(flow.server) == server.address) &&
           (server.port == 0 || flow.server_port == server.port) &&
           (asked.name.empty() || is_called(flow, asked.name));
}

// What tells by which of several interfaces the client comes, and so which [[rule]] it has.
const flow_record *latest_flow(const std::vector<flow_record> &flows, const ip_address &client) {
    const flow_record *latest = nullptr;
    for (const flow_record &each : flows) {
        if (ip_address::parse(each.client) == client &&
            (latest == nullptr || each.last_us > latest->last_us))
            latest = &each;
    }
    return latest;
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

// What avcore says of a domain's categories, asked when the daemon's code asks. Nothing gets out
// through that, which knows no exceptions.
class category_asker {
public:
    category_asker(std::shared_ptr<watch_client> avcore, profile_question about)
        : avcore_(std::move(avcore)), about_(std::move(about)) {}

    std::optional<urlf_answer> operator()(std::string_view domain) {
        const auto [said, is_new] = said_.try_emplace(std::string(domain));
        if (is_new)
            said->second = ask(said->first);
        return said->second;
    }

private:
    std::optional<urlf_answer> ask(const std::string &domain) {
        about_.name = domain;
        try {
            const std::optional<profile_record> said = ask_profile(*avcore_, about_);
            return said && said->categories ? std::optional(answer_of(*said->categories))
                                            : std::nullopt;
        } catch (const std::exception &) {
            return std::nullopt;
        }
    }

    static urlf_answer answer_of(const std::vector<uint64_t> &categories) {
        urlf_answer answer = {};
        answer.status = categories.empty() ? URLF_STATUS_NO_LIST : 0;
        for (const uint64_t each : categories) {
            if (static_cast<size_t>(answer.category_count) < URLF_CATEGORIES)
                answer.categories[answer.category_count++] = static_cast<int32_t>(each);
        }
        return answer;
    }

    std::shared_ptr<watch_client> avcore_;
    profile_question about_;
    std::map<std::string, std::optional<urlf_answer>> said_;
};

// The domain that the web filter asked for, where the daemon has it from elsewhere than now said.
void take_asked_domain(const flow_record &flow, flow_facts &facts) {
    const bool is_known = flow.application.empty() || ip_address::parse(flow.application) ||
                          !flow.host.empty() || facts.dns_sources.contains(flow.application);
    if (is_known)
        return;
    copy_text(facts.flow.trailer.kernel_domain, flow.application);
    facts.host_source = "the flow that is there";
}

// What the engine says of a flow that goes by something else, but might not without that.
void take_engines_other_name(const flow_record &flow, const profile_record &said,
                             flow_facts &facts) {
    if (!said.application.empty())
        take_engine_name(facts, said.application, said.app_id, said.cat_id, ENGINE);
    else if (!flow.host.empty())
        take_engine_name(facts, flow.host, 0, 0, HANDSHAKE);
}

// The name that the daemon had for the flow, at the place where it had it from.
void take_flow_names(const flow_record &flow, const profile_record &said, flow_facts &facts,
                     bool utc) {
    const why_record &why = flow.why;
    const uint32_t server_be = facts.flow.server_be;
    if (!said.name.empty())
        take_dns_name(facts, server_be, said.name, dns_source(said.name_us, utc));
    if (!flow.host.empty())
        take_host(facts, flow.host, HANDSHAKE);
    if (why.named_by == "dns")
        take_dns_name(facts, server_be, why.name.empty() ? flow.application : why.name,
                      dns_source(why.name_us, utc));
    else if (why.named_by == "handshake" || why.named_by == "earlier handshake")
        take_engine_name(facts, flow.application, 0, 0, "the " + why.named_by);
    else if (why.named_by == "dpi")
        take_engine_name(facts, flow.application, why.app_id, why.cat_id, ENGINE);
    else if (why.named_by == "tables" && !facts.dns_sources.contains(flow.application))
        take_dns_name(facts, server_be, flow.application, "the daemon's own cache");
    else if (why.named_by == "address asked for")
        take_asked_domain(flow, facts);
    if (why.named_by == "administrator" || why.named_by == "carrier" ||
        why.named_by == "address asked for")
        take_engines_other_name(flow, said, facts);
}

// What its client will show is taken for known where it mostly does, and where it was given.
void take_names_to_come(const why_settings &asked, const profile_record &said, flow_facts &facts,
                        bool utc) {
    const std::string &name = asked.name.empty() ? said.name : asked.name;
    if (name.empty())
        return;
    const std::string source = asked.name.empty() ? dns_source(said.name_us, utc) : "--name";
    const uint16_t port = facts.flow.server_port;
    if (asked.name.empty() && port != HTTP_PORT && port != HTTPS_PORT) {
        take_dns_name(facts, facts.flow.server_be, name, source);
        return;
    }
    take_expected_name(facts, name, source);
    if (!said.application.empty())
        take_engine_name(facts, said.application, said.app_id, said.cat_id,
                         std::string(ENGINE) + ", once it has seen the host");
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
    facts.is_there = true;
    if (!flow.outdated)
        facts.standing_verdict = flow.verdict;
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

// Where the server has no name the daemon looks for one of the client's.
void take_client_name(watch_client &avcore, profile_question about, flow_facts &facts, bool utc) {
    if (about.client.empty())
        return;
    about.server = about.client;
    about.name.clear();
    const std::optional<profile_record> said = ask_profile(avcore, about);
    if (said && !said->name.empty())
        take_dns_name(facts, facts.flow.client_be, said->name,
                      dns_source(said->name_us, utc) + ", of the client's own address");
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

std::string unknown_client(const endpoint &client) {
    const bool has_mac = client.mac != avcore::mac_address{};
    return std::string("avcore has no flow of this client: whether a [[rule]] fits that names ") +
           (has_mac ? "a network" : "a MAC address") +
           ", or one of several interfaces, isn't known";
}

} // namespace

flow_facts facts_from_avcore(const why_settings &asked, const invocation &around) {
    const settings read = read_settings(around.settings_file);
    const auto avcore = std::make_shared<watch_client>(around.watch_socket);
    avcore->wait_for_greeting(ANSWER_PATIENCE);
    const known_clients clients(read.aliases, ask_clients(*avcore));
    const std::string key = clients.find(asked.client);
    const ip_address server = parse_server(asked.server).address;
    const std::optional<ip_address> address = meant_address(read.aliases, asked.client, server);
    watch_filter of_client;
    of_client.client = address ? address->text() : key;
    const std::vector<flow_record> flows = ask_flows(*avcore, of_client);
    const std::optional<flow_record> flow = meant_flow(flows, asked);
    if (!flow && asked.is_flow)
        throw refused("avcore has this flow no more");

    flow_facts facts = begin_facts(
        flow ? endpoint_of(*flow) : known_endpoint(clients, key, address, server), asked);
    facts.client_text = client_text(asked.client, facts.client);
    if (flow)
        take_flow(*flow, facts);
    else if (clients.with_key(key) == nullptr)
        facts.notes.push_back(unknown_client(facts.client));
    profile_question about = question_about(facts, asked, flow);
    const flow_record *seen = flow ? &*flow : latest_flow(flows, facts.client.address);
    if (seen != nullptr)
        about.rule = seen->why.rule;
    std::optional<profile_record> said = ask_profile(*avcore, about);
    if (!said)
        throw refused("avcore doesn't say what it has for this client: name its file with -c");
    if (seen != nullptr)
        said->interface = seen->interface;
    take_profile(*said, facts);
    take_client_name(*avcore, about, facts, around.utc);
    if (flow)
        take_flow_names(*flow, *said, facts, around.utc);
    else
        take_names_to_come(asked, *said, facts, around.utc);
    if (asked.categories.empty())
        facts.answers.categories = category_asker(avcore, about);
    else
        take_category_files(asked, facts);
    return facts;
}

} // namespace avwatch
