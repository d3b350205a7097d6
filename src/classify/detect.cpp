#include "classify/detect.h"

#include "classify/dns_app.h"
#include "core/base/log.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "packet/decode/trailer.h"
#include "userapps/builtin_ports.h"
#include "userapps/port_service.h"
#include "userapps/userdef.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace {

using std::string_view;

constexpr char DETECT_UTP[] = "jorn_detect_pkt_utp";

// What the engine calls web traffic that it knows no more about.
constexpr string_view GENERIC_WEB_NAMES[] = {"World Wide Web HTTP", "HTTP",
                                             "HTTP Protocol over TLS SSL"};

constexpr size_t FLOW_NAME_TEXT_MAX = IPV4_TEXT_MAX + 1 + IPV4_TEXT_MAX + 1 + 5;
static_assert(FLOW_NAME_TEXT_MAX < sizeof(pkt_ctx::app_name));
static_assert(sizeof(pkt_ctx::app_name) == sizeof(pkt_ctx::orig_app));

int take_dpi_name(pkt_ctx &ctx, const av_pkt_trailer &trailer) {
    const string_view name = field_text(trailer.dpi_app_name);
    if (std::find(std::begin(GENERIC_WEB_NAMES), std::end(GENERIC_WEB_NAMES), name) !=
        std::end(GENERIC_WEB_NAMES)) {
        JORN_DEBUG_AS(DETECT_UTP, "tdts, ignore the dpi app: %s\n", printable_text(name).c_str());
        return JORN_DETECT_NO_MATCH;
    }
    if (ctx.app_source == APP_SOURCE_NONE) {
        copy_text(ctx.app_name, name);
        ctx.app_source = APP_SOURCE_DPI;
        ctx.app_id = trailer.dpi_app_id;
        ctx.app_cat_id = trailer.dpi_cat_id;
        JORN_DEBUG_AS(DETECT_UTP, "tdts, retry = %d, app = %s\n", trailer.dpi_retry,
                      printable_text(name).c_str());
    } else {
        copy_text(ctx.orig_app, name);
        JORN_DEBUG_AS(DETECT_UTP, "tdts, retry = %d, orig_app = %s\n", trailer.dpi_retry,
                      printable_text(name).c_str());
    }
    ctx.url_filter = 0;
    return JORN_DETECT_MATCH;
}

int take_dpi_result(pkt_ctx &ctx, const av_pkt_trailer &trailer) {
    if ((trailer.filter_type & AV_FILTER_DPI) == 0)
        return JORN_DETECT_NO_MATCH;
    if (trailer.dpi_status == AV_DPI_IDENTIFIED)
        return take_dpi_name(ctx, trailer);
    if (trailer.dpi_status == AV_DPI_MORE_PACKETS)
        JORN_DEBUG_AS(DETECT_UTP, "tdts, more, retry = %d\n", trailer.dpi_retry);
    else
        JORN_DEBUG_AS(DETECT_UTP, "tdts, failed, retry = %d\n", trailer.dpi_retry);
    return JORN_DETECT_NO_MATCH;
}

} // namespace

int jorn_detect_pkt(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    if (jorn_detect_pkt_utp(ctx, bytes, pkthdr->caplen) == JORN_DETECT_MATCH) {
        JORN_DEBUG("Match in URL/ARC/WFC\n");
        return JORN_DETECT_MATCH;
    }
    if (const int result = jorn_detect_pkt_dns_app(ctx, 0); result != JORN_DETECT_NO_MATCH) {
        JORN_DEBUG("Match in DNS\n");
        return result;
    }
    if (jorn_detect_pkt_builtin_port_service_app(ctx) == JORN_DETECT_MATCH) {
        JORN_DEBUG("Match in Builtin Port Service\n");
        return JORN_DETECT_MATCH;
    }
    return jorn_detect_pkt_flow_name(ctx);
}

int jorn_detect_pkt_utp(pkt_ctx *ctx, const uint8_t *bytes, uint32_t captured) {
    av_pkt_trailer trailer;
    if (!read_trailer(*ctx, bytes, captured, trailer))
        return JORN_DETECT_NO_MATCH;
    // A definition of the administrator's names the flow and decides nothing.
    if (jorn_detect_pkt_userdef_app(ctx) != JORN_DETECT_NO_MATCH)
        JORN_DEBUG("User defined App\n");
    else if (jorn_detect_pkt_userdef_port_service_app(ctx) != JORN_DETECT_NO_MATCH)
        JORN_DEBUG("User defined Port App\n");
    if (jorn_settings.tm_engine_enabled == 0)
        return JORN_DETECT_NO_MATCH;
    return take_dpi_result(*ctx, trailer);
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
