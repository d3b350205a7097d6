#include "avwatch/why/judge.h"

#include "control/commands.h"
#include "control/records/commands.h"
#include "control/records/message.h"
#include "control/tables/arc_tables.h"
#include "core/base/settings.h"
#include "core/dns/dns_cache.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "jornctl/client/apply.h"
#include "packet/decode/decode.h"
#include "packet/process.h"
#include "shared/unique_fd.h"
#include "userapps/port_file/port_service_line.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"
#include "webfilter/policy_index.h"
#include "webfilter/web_tables.h"
#include "wificalling/wificalling_tables.h"

#include <algorithm>
#include <cstring>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace avwatch {
namespace {

using jornctl::command;
using jornctl::document;

constexpr char NO_FOLDER[] = "/dev/null"; // nothing can be made in it
constexpr int NO_CONNECTION = -1;

void release_tables() {
    jorn_process_arc_policy_flush();
    jorn_process_utp_flush();
    jorn_process_web_policy_flush();
    jorn_state.web_intf_list.release_all();
    jorn_process_wificalling_policy_flush();
    jorn_state.wificalling_intf_list.release_all();
    jorn_update_user_def_policy_cfg(nullptr, 0);
    port_app_list_clear(&jorn_state.port_apps);
    dns_cache_free();
}

// A daemon that has just started, for as long as the object lives.
class fresh_daemon {
public:
    explicit fresh_daemon(bool dpi_engine) : log_mask_(setlogmask(LOG_MASK(LOG_EMERG))) {
        jorn_settings = {};
        jorn_state = {};
        jorn_settings.daemonize = 1;
        jorn_settings.tm_engine_enabled = dpi_engine ? 1 : 0;
        copy_text(jorn_settings.saved_files_folder, NO_FOLDER);
        copy_text(jorn_settings.video_stream_domain, JORN_VIDEO_STREAM_DOMAIN);
        jorn_pkt_processor = jorn_decode_eth_pkt;
        if (jorn_dnscache_hash_table_init() != 0)
            throw std::runtime_error("out of memory");
    }
    ~fresh_daemon() {
        release_tables();
        setlogmask(log_mask_);
    }
    fresh_daemon(const fresh_daemon &) = delete;
    fresh_daemon &operator=(const fresh_daemon &) = delete;

private:
    int log_mask_;
};

void take_commands(const document &said) {
    for (const command &each : jornctl::commands_of(said)) {
        if (each.number == CMD_WRITE_CFG_REQ)
            continue;
        std::string message = jornctl::make_message(each);
        const size_t size = message.size();
        message.resize(COMMAND_MESSAGE_SIZE);
        run_handler(NO_CONNECTION, message.data(), size);
    }
}

// By way of a file that is nobody's: what can't be read the daemon deletes.
void take_port_services(const std::string &text) {
    if (text.empty())
        return;
    const unique_fd file(memfd_create("port services", MFD_CLOEXEC));
    if (!file.valid() ||
        write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error(std::string("port services: ") + strerror(errno));
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    jorn_parse_port_service_conf_file(path.c_str(), &jorn_state.port_apps);
}

// Returns what is behind it.
template <typename Header>
uint8_t *put(uint8_t *at, const Header &header) {
    memcpy(at, &header, sizeof header);
    return at + sizeof header;
}

// Nobody looks at checksums.
std::vector<uint8_t> frame_of(const judged_flow &flow) {
    const bool is_tcp = flow.ip_proto == IPPROTO_TCP;
    const size_t segment = is_tcp ? sizeof(tcphdr) : sizeof(udphdr);
    std::vector<uint8_t> frame(sizeof(ether_header) + sizeof(iphdr) + segment +
                               sizeof flow.trailer);
    ether_header ethernet = {};
    std::copy(flow.client_mac.begin(), flow.client_mac.end(), ethernet.ether_shost);
    ethernet.ether_type = htons(ETHERTYPE_IP);
    uint8_t *behind = put(frame.data(), ethernet);

    iphdr ip = {};
    ip.version = 4;
    ip.ihl = sizeof ip / 4;
    ip.tot_len = htons(static_cast<uint16_t>(sizeof ip + segment));
    ip.ttl = IPDEFTTL;
    ip.protocol = flow.ip_proto;
    ip.saddr = flow.client_be;
    ip.daddr = flow.server_be;
    behind = put(behind, ip);

    if (is_tcp) {
        tcphdr tcp = {};
        tcp.source = htons(flow.client_port);
        tcp.dest = htons(flow.server_port);
        tcp.doff = sizeof tcp / 4;
        tcp.syn = 1;
        behind = put(behind, tcp);
    } else {
        udphdr udp = {};
        udp.source = htons(flow.client_port);
        udp.dest = htons(flow.server_port);
        udp.len = htons(sizeof udp);
        behind = put(behind, udp);
    }
    put(behind, flow.trailer);
    return frame;
}

pkt_ctx run_packet(const judged_flow &flow) {
    const std::vector<uint8_t> frame = frame_of(flow);
    pcap_pkthdr header = {};
    header.caplen = header.len = static_cast<uint32_t>(frame.size());
    pkt_ctx context = {};
    context.wfc_priority = WFC_PRIORITY_NONE;
    jorn_process_pkt(&context, nullptr, &header, frame.data());
    return context;
}

template <typename Record>
std::optional<size_t> place_in(const record_list<Record> &list, const Record *wanted) {
    size_t place = 0;
    for (const Record &each : list) {
        if (&each == wanted)
            return place;
        ++place;
    }
    return std::nullopt;
}

std::optional<part> deciding_rule(const pkt_ctx &context) {
    const auto policy = place_in(jorn_state.arc_policy_list, context.arc_cfg);
    if (!policy || context.arc_rule == nullptr)
        return std::nullopt;
    return part{part_kind::RULE, *policy,
                static_cast<size_t>(context.arc_rule - context.arc_cfg->rules)};
}

std::optional<part> deciding_pattern(const pkt_ctx &context, size_t policy) {
    char domain[sizeof context.web_domain];
    copy_lower_case(domain, field_text(context.web_domain));
    const int number = first_matching_pattern(*context.web_cfg, domain);
    if (number == NO_PATTERN)
        return std::nullopt;
    constexpr auto FIRST_BLACK = static_cast<int>(web_policy_index::FIRST_BLACK);
    const bool is_white = number < FIRST_BLACK;
    return part{is_white ? part_kind::WHITE_PATTERN : part_kind::BLACK_PATTERN, policy,
                static_cast<size_t>(is_white ? number : number - FIRST_BLACK)};
}

std::optional<part> deciding_category(const pkt_ctx &context, size_t policy) {
    const auto &categories = context.web_cfg->categories;
    const auto *const slot = std::ranges::find_if(categories, [&](int32_t each) {
        return each > 0 && static_cast<uint16_t>(each) == context.app_cat_id;
    });
    if (slot == std::end(categories))
        return std::nullopt;
    return part{part_kind::CATEGORY, policy, static_cast<size_t>(slot - categories)};
}

std::optional<part> deciding_web_part(const pkt_ctx &context) {
    const auto policy = place_in<web_policy>(jorn_state.web_policy_list, context.web_cfg);
    if (!policy)
        return std::nullopt;
    if (context.white_hit == WHITE_HIT || context.black_hit == BLACK_HIT)
        return deciding_pattern(context, *policy);
    return context.web_action == WEB_ACTION_BLOCK ? deciding_category(context, *policy)
                                                  : std::nullopt;
}

std::optional<part> deciding_carrier(const pkt_ctx &context, const document &whole) {
    const std::string_view name = field_text(context.wfc_refs[context.wfc_ref_index]->pname);
    if (!whole.carriers)
        return std::nullopt;
    const auto found = std::ranges::find_if(
        *whole.carriers, [&](const auto &each) { return field_text(each.pname) == name; });
    if (found == whole.carriers->end())
        return std::nullopt;
    return part{part_kind::CARRIER, static_cast<size_t>(found - whole.carriers->begin())};
}

// In the chain's own order.
std::optional<part> deciding_part(const pkt_ctx &context, const configuration &wanted) {
    if (context.url_filter != 0)
        return deciding_web_part(context);
    if (context.wfc_priority != WFC_PRIORITY_NONE)
        return deciding_carrier(context, has_table_of(part_kind::CARRIER, wanted.tried)
                                             ? wanted.tried
                                             : wanted.in_force);
    return deciding_rule(context);
}

// The last of several that say the same holds.
std::optional<part> line_of(const port_service &wanted, const std::string &port_services) {
    std::optional<part> found;
    std::istringstream lines(port_services);
    size_t number = 0;
    for (std::string line; std::getline(lines, line); ++number) {
        const std::string_view read = std::string_view(line).substr(0, PORT_SERVICE_LINE_MAX);
        port_service row;
        std::string_view version;
        if (parse_port_service_line(read.substr(0, read.find('\0')), row, version) ==
                port_service_line::RECORD &&
            memcmp(&row, &wanted, sizeof row) == 0)
            found = part{part_kind::PORT_LINE, number};
    }
    return found;
}

std::optional<part> naming_definition(const pkt_ctx &context, const std::string &port_services) {
    if (context.app_source == APP_SOURCE_USER_PORT) {
        const port_app *entry = find_port_app(context);
        return entry != nullptr ? line_of(*entry, port_services) : std::nullopt;
    }
    if (context.app_source != APP_SOURCE_USERDEF)
        return std::nullopt;
    const userdef_app *found = find_userdef_app(context);
    if (found == nullptr)
        return std::nullopt;
    return part{part_kind::APPLICATION,
                static_cast<size_t>(found - jorn_state.userdef_apps.records)};
}

asked_profile profile_of(uint32_t utp_id) {
    const utp_entry<arc_policy> *entry = utp_lookup(jorn_state.arc_utp_table, utp_id);
    return {utp_id, entry != nullptr,
            entry != nullptr ? place_in(jorn_state.arc_policy_list, entry->policy) : std::nullopt};
}

outcome read_outcome(const pkt_ctx &context, const configuration &wanted,
                     const std::string &port_services) {
    const played_platform &platform = platform_in_play();
    outcome read;
    if (platform.verdict)
        read.verdict = *platform.verdict;
    read.unanswered = platform.unanswered;
    read.named_by = static_cast<app_source>(context.app_source);
    read.is_webs = context.url_filter != 0;
    read.web_policy = place_in<web_policy>(jorn_state.web_policy_list, context.web_cfg);
    read.by = deciding_part(context, wanted);
    read.definition = naming_definition(context, port_services);
    read.profiles = {profile_of(context.src_utp_id), profile_of(context.dst_utp_id)};
    read.carrier_host = field_text(context.wfc_fqdn);
    return read;
}

} // namespace

outcome judge(const configuration &wanted, const part_set &gone, const judged_flow &flow,
              const platform_answers &answers) {
    // Of a table that both have, the one in force is emptied, whatever is in it.
    part_set gone_in_force;
    part_set gone_in_tried;
    for (const part &each : gone)
        (has_table_of(each.kind, wanted.tried) ? gone_in_tried : gone_in_force).insert(each);

    const fresh_daemon daemon(wanted.dpi_engine);
    platform_in_play() = {&answers, std::nullopt, {}};
    take_commands(without(wanted.in_force, gone_in_force));
    take_commands(without(wanted.tried, gone_in_tried));
    const std::string port_services = without_lines(wanted.port_services, gone);
    take_port_services(port_services);
    outcome found = read_outcome(run_packet(flow), wanted, port_services);
    for (std::optional<part> *each : {&found.by, &found.definition}) {
        if (*each)
            *each = place_in_whole(**each, gone);
    }
    return found;
}

} // namespace avwatch
