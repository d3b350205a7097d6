#include "avwatch/why/facts.h"

#include "avcore/settings/client_rules.h"
#include "avcore/settings/config.h"
#include "avcore/web/categories.h"
#include "avwatch/base/failure.h"
#include "avwatch/why/sides.h"
#include "core/text/text.h"

#include <algorithm>
#include <memory>

namespace avwatch {
namespace {

using avcore::config;
using avcore::endpoint;
using avcore::ip_address;

constexpr uint16_t DEFAULT_PORT = 443;
constexpr char DEFAULT_PROTOCOL[] = "tcp";

// Rules that may give the client another profile, were more known of it.
void note_rules_passed_over(const config &settings, const why_settings &asked, flow_facts &facts) {
    bool by_mac = false;
    bool by_network = false;
    bool by_capture = false;
    for (const avcore::client_rule &each : settings.rules) {
        by_mac |= each.mac.has_value();
        by_network |= each.network.has_value();
        by_capture |= !each.captured_on.empty();
    }
    const endpoint &client = facts.client;
    if (by_mac && client.mac == avcore::mac_address{})
        facts.notes.emplace_back("the client's MAC address isn't known: no [[rule]] that names one "
                                 "is looked at");
    if (by_network && client.address.is_unspecified())
        facts.notes.emplace_back("the client's IP address isn't known: no [[rule]] that names a "
                                 "network is looked at");
    if (by_capture && asked.captured_on.empty())
        facts.notes.emplace_back("without --captured-on no [[rule]] that names an interface is "
                                 "looked at");
}

void take_profile(const why_settings &asked, flow_facts &facts) {
    const config settings = avcore::read_config(asked.config_file);
    const avcore::client_rules rules(settings, asked.captured_on);
    const avcore::client_rules::fitting fitting = rules.fitting_of(facts.client);
    facts.flow.trailer = avcore::trailer_between(fitting.profile, rules.server(facts.server), true);
    facts.interface = fitting.profile.side.if_name;
    facts.profile_source =
        (fitting.rule != 0 ? "[[rule]] " + std::to_string(fitting.rule) : std::string("[client]")) +
        " of " + asked.config_file;
    const auto engine = settings.platform_values.find(AV_KEY_DPI_ENGINE);
    facts.dpi_engine = engine != settings.platform_values.end() && engine->second == "1";
    if (settings.dpi) {
        facts.flow.trailer.filter_type |= AV_FILTER_DPI;
        facts.flow.trailer.dpi_status = AV_DPI_MORE_PACKETS;
    }
    note_rules_passed_over(settings, asked, facts);
}

} // namespace

std::string flow_facts::shown(std::string_view text) const {
    return avcore::with_real_addresses(
        text, [this](uint32_t address_be) -> std::optional<ip_address> {
            const ip_address &real = address_be == flow.client_be ? client.address : server.address;
            const bool is_other = address_be == flow.client_be || address_be == flow.server_be;
            return is_other && !real.is_ipv4() ? std::optional(real) : std::nullopt;
        });
}

flow_facts begin_facts(const endpoint &client, const why_settings &asked) {
    flow_facts facts;
    facts.client = client;
    facts.client_text = asked.client;
    facts.server = parse_server(asked.server);
    const bool has_address = !facts.server.address.is_unspecified();
    if (!has_address && asked.name.empty())
        throw refused("of which server: SERVER or --name");
    if (facts.server.port == 0) {
        facts.server.port = DEFAULT_PORT;
        facts.notes.push_back("no port is given: it is taken to be " +
                              std::to_string(DEFAULT_PORT));
    }
    const uint16_t port = facts.server.port;
    facts.server_text = has_address ? facts.server.address.text_with(port)
                                    : asked.name + ':' + std::to_string(port);
    facts.protocol = asked.protocol.empty() ? DEFAULT_PROTOCOL : asked.protocol;
    facts.flow.client_mac = client.mac;
    facts.flow.client_be = shown_address(client.address, flow_side::client);
    facts.flow.server_be = shown_address(facts.server.address, flow_side::server);
    facts.flow.server_port = port;
    facts.flow.ip_proto = protocol_number(facts.protocol);
    return facts;
}

void take_dns_name(flow_facts &facts, uint32_t address_be, const std::string &name,
                   const std::string &source) {
    facts.answers.names[address_be] = name;
    av_verdict named;
    copy_lower_case(named.app_name, name);
    facts.dns_sources[std::string(field_text(named.app_name))] = source;
}

void take_host(flow_facts &facts, const std::string &host, const std::string &source) {
    av_pkt_trailer &trailer = facts.flow.trailer;
    if ((trailer.filter_type & AV_FILTER_DPI) == 0)
        return;
    constexpr size_t most = sizeof trailer.kernel_domain - 1;
    copy_text(trailer.kernel_domain,
              std::string_view(host).substr(host.size() - std::min(host.size(), most)));
    facts.host_source = source;
}

void take_engine_name(flow_facts &facts, const std::string &name, uint64_t app_id, uint64_t cat_id,
                      const std::string &source) {
    av_pkt_trailer &trailer = facts.flow.trailer;
    const bool is_for_web = app_id == 0 && (trailer.filter_type & AV_FILTER_URL) != 0;
    if ((trailer.filter_type & AV_FILTER_DPI) == 0 || is_for_web)
        return;
    trailer.dpi_status = AV_DPI_IDENTIFIED;
    trailer.dpi_app_id = static_cast<uint16_t>(app_id);
    trailer.dpi_cat_id = static_cast<uint16_t>(cat_id);
    copy_text(trailer.dpi_app_name, name);
    facts.engine_source = source;
}

void take_expected_name(flow_facts &facts, const std::string &name, const std::string &source) {
    take_dns_name(facts, facts.flow.server_be, name, source);
    take_host(facts, name, source);
    take_engine_name(facts, name, 0, 0, source);
}

void take_category_files(const why_settings &asked, flow_facts &facts) {
    const auto list =
        std::make_shared<avcore::category_list>(avcore::category_list::read(asked.categories));
    facts.answers.categories = [list](std::string_view domain) { return list->answer(domain); };
}

flow_facts facts_from_files(const std::string &client, const why_settings &asked) {
    flow_facts facts = begin_facts(parse_client(client), asked);
    take_profile(asked, facts);
    if (!asked.name.empty())
        take_expected_name(facts, asked.name, "--name");
    if (!asked.categories.empty())
        take_category_files(asked, facts);
    return facts;
}

} // namespace avwatch
