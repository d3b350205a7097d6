#include "avcore/engine/dpi.h"

#include "core/text/text.h"

#include <algorithm>
#include <ndpi_api.h>
#include <netinet/tcp.h>
#include <stdexcept>

namespace avcore {
namespace {

constexpr uint32_t DPI_FAILED = 3;
constexpr size_t HOST_KEPT =
    sizeof ndpi_flow_struct::host_server_name - 1; // the end of a longer one
constexpr size_t DOMAIN_MAX = sizeof(av_pkt_trailer::kernel_domain) - 1;

bool is_same_side(const endpoint &one, const endpoint &other) {
    return one.ip_be == other.ip_be && one.port == other.port;
}

} // namespace

// In Debian's nDPI a bare TLS flow is (0, TLS), one whose server is known is (TLS, that server's):
// either field may hold what matters.
dpi_application dpi_application_of(uint16_t master, uint16_t application) {
    const auto either = [&](uint16_t id) { return master == id || application == id; };
    const auto bare = [&](uint16_t id) {
        return application == id || (application == NDPI_PROTOCOL_UNKNOWN && master == id);
    };
    // nDPI names a query after what was asked.
    if (either(NDPI_PROTOCOL_DNS))
        return {NDPI_PROTOCOL_DNS, nullptr, handshake::none};
    const handshake web = either(NDPI_PROTOCOL_HTTP)   ? handshake::http
                          : either(NDPI_PROTOCOL_TLS)  ? handshake::tls
                          : either(NDPI_PROTOCOL_QUIC) ? handshake::quic
                                                       : handshake::none;
    if (bare(NDPI_PROTOCOL_HTTP))
        return {NDPI_PROTOCOL_HTTP, AV_DPI_BARE_HTTP, web};
    if (bare(NDPI_PROTOCOL_TLS))
        return {NDPI_PROTOCOL_TLS, AV_DPI_BARE_TLS, web};
    if (bare(NDPI_PROTOCOL_QUIC))
        return {NDPI_PROTOCOL_QUIC, AV_DPI_BARE_TLS, web};
    return {application != NDPI_PROTOCOL_UNKNOWN ? application : master, nullptr, web};
}

bool names_application(const av_pkt_trailer &trailer) {
    const std::string_view found = field_text(trailer.dpi_app_name);
    return trailer.dpi_status == AV_DPI_IDENTIFIED && found != AV_DPI_BARE_HTTP &&
           found != AV_DPI_BARE_TLS;
}

bool ignores_engine(const av_pkt_trailer &trailer, const av_verdict &verdict) {
    const std::string_view found =
        field_text(trailer.dpi_app_name).substr(0, sizeof verdict.app_name - 1);
    const bool only_dpi = trailer.filter_type == AV_FILTER_DPI && verdict.match_info == 0;
    return only_dpi && names_application(trailer) &&
           !equals_ignoring_case(found, field_text(verdict.app_name));
}

void dpi_engine::module_closer::operator()(ndpi_detection_module_struct *module) const {
    ndpi_exit_detection_module(module);
}

void dpi_engine::flow_closer::operator()(ndpi_flow_struct *flow) const {
    ndpi_free_flow(flow);
}

dpi_engine::dpi_engine(size_t max_flows)
    : max_flows_(max_flows), module_(ndpi_init_detection_module(ndpi_no_prefs)) {
    if (!module_)
        throw std::runtime_error("the DPI engine doesn't start");
    NDPI_PROTOCOL_BITMASK all;
    NDPI_BITMASK_SET_ALL(all);
    ndpi_set_protocol_detection_bitmask2(module_.get(), &all);
    ndpi_finalize_initialization(module_.get());
}

dpi_engine::~dpi_engine() = default;

bool dpi_engine::had_enough(uint8_t ip_proto, uint64_t packets) {
    return packets >= (ip_proto == IPPROTO_TCP ? ENOUGH_TCP_PACKETS : ENOUGH_OTHER_PACKETS);
}

dpi_engine::flow_state &dpi_engine::state_of(const flow_id &id, int64_t time_us) {
    while (!flows_.empty() && time_us - flows_.back().last_us > MAX_IDLE_US) {
        index_.erase(flows_.back().id);
        flows_.pop_back();
    }
    auto found = index_.find(id);
    if (found == index_.end()) {
        if (flows_.size() >= max_flows_) {
            index_.erase(flows_.back().id);
            flows_.pop_back();
        }
        auto *flow = static_cast<ndpi_flow_struct *>(ndpi_flow_malloc(sizeof(ndpi_flow_struct)));
        if (flow == nullptr)
            throw std::runtime_error("out of memory");
        memset(flow, 0, sizeof *flow);
        flows_.emplace_front().id = id;
        flows_.front().flow.reset(flow);
        found = index_.emplace(id, flows_.begin()).first;
    }
    flows_.splice(flows_.begin(), flows_, found->second);
    flows_.front().last_us = time_us;
    return flows_.front();
}

uint16_t dpi_engine::application_of_host(std::string_view host) {
    std::string text(host);
    ndpi_protocol_match_result match = {};
    if (text.empty())
        return NDPI_PROTOCOL_UNKNOWN;
    const int app = ndpi_match_string_subprotocol(module_.get(), text.data(),
                                                  static_cast<unsigned>(text.size()), &match);
    return app > 0 ? static_cast<uint16_t>(app) : uint16_t{NDPI_PROTOCOL_UNKNOWN};
}

uint16_t dpi_engine::category_of(uint16_t app) const {
    const ndpi_protocol alone = {NDPI_PROTOCOL_UNKNOWN, app, NDPI_PROTOCOL_CATEGORY_UNSPECIFIED};
    return static_cast<uint16_t>(ndpi_get_proto_category(module_.get(), alone));
}

void dpi_engine::identify(finding &found, const dpi_application &application) {
    found.status = AV_DPI_IDENTIFIED;
    found.app_id = application.id;
    found.cat_id = category_of(application.id);
    found.bare = application.name != nullptr;
    found.name = found.bare ? application.name : ndpi_get_proto_name(module_.get(), application.id);
}

std::vector<known_application> dpi_engine::applications() const {
    constexpr std::string_view UNUSED = "FREE_"; // numbers that nDPI keeps for later
    std::vector<known_application> known;
    const unsigned count = ndpi_get_num_supported_protocols(module_.get());
    for (uint16_t id = NDPI_PROTOCOL_UNKNOWN + 1; id < count; ++id) {
        const std::string name = ndpi_get_proto_name(module_.get(), id);
        const bool is_bare_web =
            id == NDPI_PROTOCOL_HTTP || id == NDPI_PROTOCOL_TLS || id == NDPI_PROTOCOL_QUIC;
        if (is_bare_web || name.starts_with(UNUSED))
            continue;
        known.push_back(known_as(id));
    }
    return known;
}

known_application dpi_engine::known_as(uint16_t app) const {
    const uint16_t category = category_of(app);
    return {app, category, ndpi_get_proto_name(module_.get(), app),
            ndpi_category_get_name(module_.get(), static_cast<ndpi_protocol_category_t>(category))};
}

std::optional<known_application> dpi_engine::application_for(std::string_view host) {
    const dpi_application application =
        dpi_application_of(NDPI_PROTOCOL_TLS, application_of_host(host));
    if (application.id == NDPI_PROTOCOL_UNKNOWN || application.name != nullptr)
        return std::nullopt;
    return known_as(application.id);
}

// Takes over what nDPI says of the flow now. Returns whether it names it, and not by a guess.
bool dpi_engine::take_finding(flow_state &state, uint16_t master, uint16_t app) {
    const ndpi_flow_struct &flow = *state.flow;
    // nDPI's confidence is in the master protocol where there is one. The application may then come
    // from a list of address ranges, in which the client's own address stands as well as the
    // server's.
    if (master != NDPI_PROTOCOL_UNKNOWN && app == flow.guessed_host_protocol_id &&
        application_of_host(field_text(flow.host_server_name)) != app)
        app = NDPI_PROTOCOL_UNKNOWN;
    const dpi_application application = dpi_application_of(master, app);
    if (application.shows_host != handshake::none) {
        state.found.host = field_text(flow.host_server_name);
        state.found.shown_in = application.shows_host;
    }
    if (application.id == NDPI_PROTOCOL_UNKNOWN || flow.confidence != NDPI_CONFIDENCE_DPI)
        return false;
    identify(state.found, application);
    return true;
}

void dpi_engine::feed(flow_state &state, std::span<const uint8_t> packet, int64_t time_us) {
    ndpi_protocol seen = ndpi_detection_process_packet(
        module_.get(), state.flow.get(), packet.data(), static_cast<unsigned short>(packet.size()),
        static_cast<uint64_t>(time_us / 1000));
    const bool named = take_finding(state, seen.master_protocol, seen.app_protocol);

    const unsigned limit = state.id.ip_proto == IPPROTO_TCP ? MAX_TCP_PACKETS : MAX_OTHER_PACKETS;
    const bool complete =
        named && ndpi_extra_dissection_possible(module_.get(), state.flow.get()) == 0;
    if (!complete && state.packets < limit)
        return;
    if (state.found.status != AV_DPI_IDENTIFIED) {
        // Without guesses: ports and addresses the daemon knows itself.
        uint8_t guessed = 0;
        seen = ndpi_detection_giveup(module_.get(), state.flow.get(), 0, &guessed);
        if (!take_finding(state, seen.master_protocol, seen.app_protocol))
            state.found.status = DPI_FAILED;
    }
    state.flow.reset();
}

hello_reader::sight dpi_engine::look_at_segment(flow_state &state, const frame_facts &frame,
                                                std::span<const uint8_t> packet, int64_t time_us) {
    const std::optional<tcp_segment> segment = tcp_segment_in(packet);
    if (!segment)
        return {};
    const uint32_t opens = (segment->flags & TH_SYN) != 0 ? 1 : 0; // it has a number of its own
    // Not what the client says in the server's name.
    const bool from_server = !frame.sender_is_client.value_or(false);
    const bool accepts = from_server && opens != 0 && (segment->flags & TH_ACK) != 0;
    if (accepts && state.hello == hello_state::unseen)
        state.stream = {frame.receiver, segment->acknowledged};
    else if (!state.stream && (opens != 0 || !segment->data.empty()))
        state.stream = {frame.sender, segment->sequence + opens};
    if (state.hello == hello_state::unseen && segment->data.empty())
        return {};
    // A server speaks when the hello is whole. The copies of its pieces may be cut, or missing.
    if (from_server && !segment->data.empty() &&
        !is_same_side(state.stream->client, frame.sender)) {
        hellos_.forget(state.id);
        return {};
    }
    const auto offset = static_cast<int32_t>(segment->sequence + opens - state.stream->sequence);
    return hellos_.look_at_segment(state.id, frame.sender, offset, segment->data, time_us);
}

// While the pieces of a hello come in, nothing is said unless nDPI knows the host.
void dpi_engine::look_for_hello(flow_state &state, const frame_facts &frame,
                                std::span<const uint8_t> packet, int64_t time_us) {
    const bool is_tcp = state.id.ip_proto == IPPROTO_TCP;
    const bool is_known = !is_tcp && !state.found.host.empty();
    if (is_known || state.packets >= (is_tcp ? MAX_TCP_PACKETS : MAX_OTHER_PACKETS)) {
        hellos_.forget(state.id);
        state.hello = hello_state::over;
        return;
    }
    const hello_reader::sight seen =
        is_tcp ? look_at_segment(state, frame, packet, time_us)
               : hellos_.look_at_datagram(state.id, frame.sender, udp_payload(packet), time_us);
    using outcome = hello_reader::outcome;
    if (seen.what == outcome::gathering)
        state.hello = hello_state::gathering;
    else if (seen.what != outcome::nothing || state.hello == hello_state::gathering)
        state.hello = hello_state::over;
    if (seen.what == outcome::read)
        take_hello(state, seen, frame.receiver);
}

// What nDPI would say of the flow had it read the hello. It may have read another one: it looks at
// each segment and each record by itself.
void dpi_engine::take_hello(flow_state &state, const hello_reader::sight &seen,
                            const endpoint &server) {
    const std::string_view host = seen.host;
    const bool has_read_it = equals_ignoring_case(
        host.substr(host.size() - std::min(host.size(), HOST_KEPT)), state.found.host);
    if (has_read_it && seen.in != handshake::quic)
        return;
    state.found.host = host;
    state.found.shown_in = seen.in;
    state.found.taken_name.clear();
    state.shown_to = host.empty() ? std::nullopt : std::optional(server);
    const uint16_t carrier = seen.in == handshake::quic   ? NDPI_PROTOCOL_QUIC
                             : seen.in == handshake::http ? NDPI_PROTOCOL_HTTP
                                                          : NDPI_PROTOCOL_TLS;
    const uint16_t application = application_of_host(host.substr(0, host.find(':')));
    identify(state.found, dpi_application_of(carrier, application));
    state.flow.reset();
}

bool dpi_engine::just_taken(flow_state &state, const frame_facts &frame,
                            std::span<const uint8_t> packet) {
    if (!state.shown_to || !is_same_side(*state.shown_to, frame.sender) ||
        !takes_handshake(state.found.shown_in, packet))
        return false;
    state.shown_to.reset();
    state.found.taken_name = flow_name_in(state.found.host).value_or("");
    return true;
}

void dpi_engine::write(const finding &found, bool by_own_name, av_pkt_trailer &trailer) {
    const std::string_view host = found.host;
    trailer.filter_type |= AV_FILTER_DPI;
    trailer.dpi_status = found.status;
    copy_text(trailer.kernel_domain, host.substr(host.size() - std::min(host.size(), DOMAIN_MAX)));
    if (by_own_name) {
        copy_text(trailer.dpi_app_name, found.taken_name);
        return;
    }
    trailer.dpi_app_id = found.app_id;
    trailer.dpi_cat_id = found.cat_id;
    copy_text(trailer.dpi_app_name, found.name);
}

// Not before its client has said something is nDPI's word the last one on a TCP flow: it takes data
// for the client's that the server doesn't.
bool dpi_engine::awaits_hello(const flow_state &state) {
    return state.hello == hello_state::gathering ||
           (state.hello == hello_state::unseen && state.id.ip_proto == IPPROTO_TCP);
}

void dpi_engine::look(flow_state &state, const frame_facts &frame, std::span<const uint8_t> packet,
                      int64_t time_us) {
    const bool host_known = !state.found.host.empty();
    const bool may_hold_hello =
        awaits_hello(state) ||
        (state.id.ip_proto == IPPROTO_UDP && state.flow && state.hello == hello_state::unseen);
    if (state.flow || may_hold_hello)
        ++state.packets;
    if (state.flow)
        feed(state, packet, time_us);
    if (may_hold_hello)
        look_for_hello(state, frame, packet, time_us);
    const bool http_response = state.found.shown_in == handshake::http &&
                               takes_handshake(handshake::http, packet); // with a header Host
    if (!host_known && !state.found.host.empty() && !http_response)
        state.shown_to = frame.receiver;
}

shown_host dpi_engine::inspect(const frame_facts &frame, std::span<const uint8_t> packet,
                               int64_t time_us, av_pkt_trailer &trailer) {
    flow_state &state = state_of(flow_id_of(frame), time_us);
    if (!frame.is_damaged)
        look(state, frame, packet, time_us);
    const bool taken = !frame.is_damaged && just_taken(state, frame, packet);
    static const finding nothing_yet;
    const bool gathering = state.hello == hello_state::gathering;
    const finding &found = gathering && state.found.host.empty() ? nothing_yet : state.found;
    const std::string_view own_name = found.own_name();
    // A name from the engine takes a packet from the web's decision, and keeps the daemon from
    // learning where a redirect leads.
    const bool may_say = (trailer.filter_type & AV_FILTER_URL) == 0 && !frame.redirects;
    trailer.dpi_retry = static_cast<int32_t>(state.packets);
    write(found, may_say && !own_name.empty(), trailer);
    const bool may_get_name = awaits_hello(state) || (found.bare && state.shown_to.has_value());
    return {state.found.host, own_name, taken, !state.flow && !may_get_name && !frame.redirects};
}

} // namespace avcore
