#include "classify/detect.h"

#include "classify/dns_app.h"
#include "classify/trailer_step.h"
#include "core/base/log.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "packet/decode/trailer.h"
#include "userapps/builtin_ports.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"
#include "wificalling/detect_wificalling.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace {

using std::string_view;

// What the engine calls web traffic that it knows no more about.
constexpr string_view GENERIC_WEB_NAMES[] = {AV_DPI_BARE_WEB, AV_DPI_BARE_HTTP, AV_DPI_BARE_TLS};

constexpr size_t FLOW_NAME_TEXT_MAX = IPV4_TEXT_MAX + 1 + IPV4_TEXT_MAX + 1 + 5;
static_assert(FLOW_NAME_TEXT_MAX < sizeof(pkt_ctx::app_name));
static_assert(sizeof(pkt_ctx::app_name) == sizeof(pkt_ctx::orig_app));

// The administrator's definitions and ports name the flow and decide nothing.
after_step name_by_administrator(pkt_ctx &ctx, const trailer_view &) {
    if (jorn_detect_pkt_userdef_app(&ctx) != JORN_DETECT_NO_MATCH)
        JORN_DEBUG_AS(DETECT_UTP, "User defined App\n");
    else if (jorn_detect_pkt_userdef_port_service_app(&ctx) != JORN_DETECT_NO_MATCH)
        JORN_DEBUG_AS(DETECT_UTP, "User defined Port App\n");
    return after_step::next;
}

after_step tag_wificalling(pkt_ctx &ctx, const trailer_view &) {
    return jorn_detect_wificalling(&ctx) == JORN_DETECT_MATCH ? after_step::matched
                                                              : after_step::next;
}

after_step take_dpi_name(pkt_ctx &ctx, const trailer_view &trailer) {
    const string_view name = trailer.dpi_app_name();
    if (std::find(std::begin(GENERIC_WEB_NAMES), std::end(GENERIC_WEB_NAMES), name) !=
        std::end(GENERIC_WEB_NAMES)) {
        JORN_DEBUG_AS(DETECT_UTP, "tdts, ignore the dpi app: %s\n", printable_text(name).c_str());
        return after_step::undecided;
    }
    if (ctx.app_source == APP_SOURCE_NONE) {
        copy_text(ctx.app_name, name);
        ctx.app_source = APP_SOURCE_DPI;
        ctx.app_id = trailer.dpi_app_id();
        ctx.app_cat_id = trailer.dpi_cat_id();
        JORN_DEBUG_AS(DETECT_UTP, "tdts, retry = %d, app = %s\n", trailer.dpi_retry(),
                      printable_text(name).c_str());
    } else {
        copy_text(ctx.orig_app, name);
        JORN_DEBUG_AS(DETECT_UTP, "tdts, retry = %d, orig_app = %s\n", trailer.dpi_retry(),
                      printable_text(name).c_str());
    }
    ctx.url_filter = 0;
    return after_step::matched;
}

after_step take_dpi_result(pkt_ctx &ctx, const trailer_view &trailer) {
    const uint32_t status = trailer.dpi_status();
    if (status == AV_DPI_IDENTIFIED)
        return take_dpi_name(ctx, trailer);
    if (status == AV_DPI_MORE_PACKETS)
        JORN_DEBUG_AS(DETECT_UTP, "tdts, more, retry = %d\n", trailer.dpi_retry());
    else
        JORN_DEBUG_AS(DETECT_UTP, "tdts, failed, retry = %d\n", trailer.dpi_retry());
    return after_step::undecided;
}

struct trailer_step {
    uint32_t asked_by; // av_filter bit of the trailer; 0 = not for the module to ask
    bool needs_engine; // not taken while the DPI engine is off
    after_step (*run)(pkt_ctx &ctx, const trailer_view &trailer);
};

// In their order: the administrator's own names, Wi-Fi calling, the web, the DPI engine's result.
constexpr trailer_step TRAILER_STEPS[] = {
    {0, false, name_by_administrator},
    {AV_FILTER_WIFICALLING, false, tag_wificalling},
    {AV_FILTER_URL, true, filter_url},
    {AV_FILTER_DPI, true, take_dpi_result},
};

void read_trailer(pkt_ctx &ctx, const trailer_view &trailer) {
    JORN_DEBUG_AS(DETECT_UTP,
                  "The flow id is %d, dpi_retry = %d and url retry %d, filter type %d\n",
                  static_cast<int>(trailer.flow_id()), trailer.dpi_retry(), trailer.url_retry(),
                  static_cast<int>(trailer.filter_type()));
    trailer.copy_sides(ctx);
    JORN_DEBUG_AS(
        DETECT_UTP, "The received indexes are SRC: %d %s, DST: %d %s\n",
        static_cast<int>(ctx.src_if_index), printable_text(field_text(ctx.src_if_name)).c_str(),
        static_cast<int>(ctx.dst_if_index), printable_text(field_text(ctx.dst_if_name)).c_str());
}

struct captured_packet {
    const uint8_t *bytes;
    uint32_t size;
};

struct detection_step {
    int (*run)(pkt_ctx *ctx, const captured_packet &captured);
    log_text decided; // for a packet that it decided
};

// In their order; the first that decides ends the pipeline.
constexpr detection_step DETECTION_STEPS[] = {
    {[](pkt_ctx *ctx, const captured_packet &captured) {
         return jorn_detect_pkt_utp(ctx, captured.bytes, captured.size);
     },
     "Match in URL/ARC/WFC\n"},
    {[](pkt_ctx *ctx, const captured_packet &) { return jorn_detect_pkt_dns_app(ctx, 0); },
     "Match in DNS\n"},
    {[](pkt_ctx *ctx, const captured_packet &) {
         return jorn_detect_pkt_builtin_port_service_app(ctx);
     },
     "Match in Builtin Port Service\n"},
    {[](pkt_ctx *ctx, const captured_packet &) { return jorn_detect_pkt_flow_name(ctx); }, nullptr},
};

} // namespace

int jorn_detect_pkt(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    const captured_packet captured = {bytes, pkthdr->caplen};
    for (const detection_step &step : DETECTION_STEPS) {
        const int result = step.run(ctx, captured);
        if (result == JORN_DETECT_NO_MATCH)
            continue;
        jorn_log_text(JORN_LOG_DEBUG, JORN_HERE, 0, step.decided);
        return result;
    }
    return JORN_DETECT_NO_MATCH;
}

int jorn_detect_pkt_utp(pkt_ctx *ctx, const uint8_t *bytes, uint32_t captured) {
    JORN_DEBUG("cap len %d and len %d\n", static_cast<int>(captured),
               static_cast<int>(sizeof(av_pkt_trailer)));
    if (!has_trailer(captured)) {
        JORN_DEBUG("There is conflict in received packet len\n");
        return JORN_DETECT_NO_MATCH;
    }
    const trailer_view trailer(bytes, captured);
    read_trailer(*ctx, trailer);
    for (const trailer_step &step : TRAILER_STEPS) {
        if (step.asked_by != 0 && (trailer.filter_type() & step.asked_by) == 0)
            continue;
        if (step.needs_engine && jorn_settings.tm_engine_enabled == 0)
            continue;
        const after_step result = step.run(*ctx, trailer);
        if (result != after_step::next)
            return result == after_step::matched ? JORN_DETECT_MATCH : JORN_DETECT_NO_MATCH;
    }
    return JORN_DETECT_NO_MATCH;
}

int jorn_detect_pkt_flow_name(pkt_ctx *ctx) {
    if (ctx->non_ip != 0 || ctx->src_ip == 0)
        return JORN_DETECT_NO_MATCH;
    const bool unnamed = ctx->app_source == APP_SOURCE_NONE;
    char *to = write_ipv4(unnamed ? ctx->app_name : ctx->orig_app, ctx->src_ip);
    *to++ = ' ';
    if (ctx->dst_ip != 0)
        to = write_ipv4(to, ctx->dst_ip);
    *to++ = ':';
    to = std::to_chars(to, to + 5, ctx->dst_port).ptr;
    *to = '\0';
    return unnamed ? JORN_DETECT_MATCH : JORN_DETECT_NO_MATCH;
}
