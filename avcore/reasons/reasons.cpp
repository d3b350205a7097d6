#include "avcore/reasons/reasons.h"

#include "avcore/base/ip_address.h"
#include "avcore/base/printable.h"
#include "avcore/web/category_names.h"
#include "control/records/arc.h"
#include "core/text/text.h"
#include "userapps/builtin_ports.h"

#include <string_view>

namespace avcore {
namespace {

const char *words_of(name_source source) {
    switch (source) {
    case name_source::dns:
        return "DNS";
    case name_source::handshake:
        return "the handshake";
    case name_source::earlier_handshake:
        return "an earlier handshake of the client's";
    case name_source::engine:
        return "the DPI engine";
    case name_source::administrator:
        return "the administrator's definitions";
    case name_source::address_asked_for:
        return "the address that was asked for";
    case name_source::carrier:
        return "a carrier's gateways";
    case name_source::port:
        return "a well-known port";
    case name_source::none:
    case name_source::tables:
        break;
    }
    return "the daemon's tables";
}

// The web policy is asked first; what it lets pass is the application policy's.
bool is_by_web(const av_verdict &verdict) {
    return verdict.wificalling_f == AV_DECIDED_BY_WEB && verdict.qos.url_decided != 0;
}

bool is_called_by_port(const flow_row &row, std::string_view name) {
    pkt_ctx context = {};
    context.ip_proto = row.ip_proto;
    context.src_port = row.client.port;
    context.dst_port = row.server.port;
    return jorn_detect_pkt_builtin_port_service_app(&context) != 0 &&
           equals_ignoring_case(field_text(context.app_name), name);
}

name_source source_of_name(const flow_row &row, const fed_frame &frame, const av_verdict &verdict) {
    const std::string_view name = field_text(verdict.app_name);
    const av_pkt_trailer trailer = frame.trailer();
    if (is_by_web(verdict))
        return name_source::address_asked_for;
    if (verdict.wificalling_f == AV_DECIDED_BY_WIFICALLING)
        return name_source::carrier;
    if (verdict.match_info != 0)
        return name_source::administrator;
    if (trailer.dpi_status == AV_DPI_IDENTIFIED &&
        equals_ignoring_case(field_text(trailer.dpi_app_name), name))
        return trailer.dpi_app_id != 0 ? name_source::engine
               : row.own_name.empty()  ? name_source::earlier_handshake
                                       : name_source::handshake;
    if (!row.host.empty() && equals_ignoring_case(row.host, name))
        return name_source::handshake;
    if (!row.server_name.empty() && equals_ignoring_case(row.server_name, name))
        return name_source::dns;
    if (is_called_by_port(row, name))
        return name_source::port;
    // The daemon calls a flow after its addresses where it knows nothing better.
    return is_unnamed(name.substr(0, name.find(' '))) ? name_source::none : name_source::tables;
}

// A category decides, or an entry of the black list; with that one the record has the category of
// the administrator's definition, where one names the flow. That is mostly none of the web's.
std::string web_reason(const av_verdict &verdict) {
    const bool is_defined = verdict.match_info != 0;
    if (verdict.verdict == AV_VERDICT_WHITE_LIST)
        return "white list";
    if (verdict.app_cat_id == 0 || (is_defined && verdict.app_cat_id == CATEGORY_USER_DEFINED))
        return "black list";
    return category_text(verdict.app_cat_id) + (is_defined ? " or black list" : "");
}

// An application policy goes by the profile of the frame's sender, or else of its receiver.
std::string policy_text(const verdict_reason &reason) {
    if (reason.by == verdict_source::web_policy)
        return "the web policy, " + reason.web_reason;
    return "the application policy of user profile " + std::to_string(reason.profile) +
           (reason.of_client ? ", the client's" : ", the server's");
}

} // namespace

bool is_unnamed(std::string_view name) {
    return name.empty() || ip_address::parse(std::string(name));
}

verdict_reason reason_of(const flow_row &row, const fed_frame &frame, const av_verdict &verdict) {
    verdict_reason reason;
    const bool has_name = !field_text(verdict.app_name).empty(); // else the row keeps its own
    const name_source source = source_of_name(row, frame, verdict);
    reason.named_by = has_name ? source : row.reason.named_by;
    if (reason.named_by == name_source::engine) {
        reason.app_id = has_name ? frame.trailer().dpi_app_id : row.reason.app_id;
        reason.cat_id = has_name ? frame.trailer().dpi_cat_id : row.reason.cat_id;
    }
    reason.profile = verdict.qos.arc_match_utp;
    reason.of_client = frame.from_client == (verdict.qos.arc_match_src != 0);
    if (is_by_web(verdict)) {
        reason.by = verdict_source::web_policy;
        reason.web_reason = web_reason(verdict);
    } else if (verdict.wificalling_f == AV_DECIDED_BY_WIFICALLING) {
        reason.by = verdict_source::wificalling;
    } else if (reason.profile != 0) {
        reason.by = verdict_source::application_policy;
    }
    if (verdict.verdict == AV_VERDICT_DENY)
        reason.denial_text = printable(field_text(verdict.app_name)) + ", named by " +
                             words_of(source) + "; by " + policy_text(reason);
    return reason;
}

verdict_reason reason_of(const flow_row &row, const av_app_setting &setting) {
    verdict_reason reason;
    const std::string_view name = field_text(setting.name);
    const bool keeps_name = name.empty() || name == AV_ANY_APPLICATION;
    reason.named_by = keeps_name ? row.reason.named_by : name_source::address_asked_for;
    reason.by = verdict_source::late_answer;
    reason.web_reason = category_text(setting.category);
    if (setting.verdict == AV_VERDICT_DENY)
        reason.denial_text = printable(row.application) + ", named by " +
                             words_of(name_source::address_asked_for) + "; by the web policy, " +
                             reason.web_reason + ", after a late answer";
    return reason;
}

} // namespace avcore
