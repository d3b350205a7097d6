#include "classify/dns_app.h"

#include "classify/detect.h"
#include "classify/web_ports.h"
#include "core/base/log.h"
#include "core/dns/dns_cache.h"
#include "core/dns/dns_look_up.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"

#include <algorithm>
#include <arpa/inet.h>

namespace {

using std::string_view;

constexpr char DETECT_DNS_APP[] = "jorn_detect_pkt_dns_app";
constexpr int REDIRECT_PIECES = 5;

using name_buffer = char[65];

dns_look_up look_up(uint32_t address_be, uint16_t port, int web_mode, name_buffer &name) {
    if (web_mode != 0 && !is_web_port(port))
        return dns_look_up::not_asked;
    return look_up_dns_name(address_be, name, JORN_AS(DETECT_DNS_APP));
}

// The destination, and the source when the destination has no name.
dns_look_up look_up_flow(const pkt_ctx &ctx, int web_mode, name_buffer &name) {
    dns_look_up result = look_up(ctx.dst_ip, ctx.dst_port, web_mode, name);
    if (result == dns_look_up::named) {
        JORN_DEBUG_AS(DETECT_DNS_APP, "the dst ip is %s, the domain name is %s\n",
                      ipv4_text(ctx.dst_ip).c_str(), printable_text(name).c_str());
    }
    if (result == dns_look_up::named || result == dns_look_up::failed)
        return result;

    result = look_up(ctx.src_ip, ctx.src_port, web_mode, name);
    if (result == dns_look_up::named) {
        JORN_DEBUG_AS(DETECT_DNS_APP, "the src ip is %s, the domain name is %s\n",
                      ipv4_text(ctx.src_ip).c_str(), printable_text(name).c_str());
    }
    return result;
}

// The address in a 302 response's target gets the name of the flow that was redirected there.
void learn_redirect(const pkt_ctx &ctx, const name_buffer &name) {
    uint32_t address_be = 0;
    if (ctx.http_redirect != 1 || ctx.app_name[0] == '\0' ||
        jorn_parse_redirect_ip(field_text(ctx.http_location), &address_be) != 0)
        return;
    if (learn_dns_name(address_be, field_text(ctx.app_name)) == 0) {
        JORN_DEBUG_AS(DETECT_DNS_APP, "http 302 update, the ip is 0x%x, %s, the dns is %s \n",
                      address_be, ipv4_text(address_be).c_str(), printable_text(name).c_str());
    }
}

// The number at `*at`, 256 standing for all that are greater; moves behind it and its dot.
unsigned long take_number(string_view text, size_t *at) {
    unsigned long number = 0;
    for (; *at < text.size() && text[*at] != '.'; ++*at)
        number = std::min(number * 10 + static_cast<unsigned long>(text[*at] - '0'), 256ul);
    ++*at;
    return number;
}

bool is_dotted_quad(string_view text) {
    if (text.size() < 7 || text.size() > IPV4_TEXT_MAX || text.front() == '.' ||
        text.back() == '.' || text.find_first_not_of("0123456789.") != text.npos ||
        std::count(text.begin(), text.end(), '.') != 3)
        return false;
    size_t at = 0;
    for (int i = 0; i < 4 && text[at] != '.'; ++i) {
        if (take_number(text, &at) > 255)
            return false;
    }
    return true;
}

} // namespace

int jorn_detect_pkt_dns_app(pkt_ctx *ctx, int web_mode) {
    name_buffer name = {};
    const dns_look_up result = look_up_flow(*ctx, web_mode, name);
    if (result == dns_look_up::named) {
        ctx->detect_flags |= DETECT_CLASSIFIED;
        copy_text(ctx->app_source == APP_SOURCE_NONE ? ctx->app_name : ctx->orig_app, name);
    }
    if (result == dns_look_up::named || result == dns_look_up::not_asked)
        learn_redirect(*ctx, name);

    if (ctx->app_name[0] == '\0')
        return JORN_DETECT_NO_MATCH;
    if (web_mode == 0 && ctx->app_source == APP_SOURCE_NONE)
        ctx->app_source = APP_SOURCE_DNS;
    return JORN_DETECT_MATCH;
}

int jorn_is_valid_ipv4_string(const char *text) {
    return text != nullptr && is_dotted_quad(text) ? 1 : 0;
}

int jorn_parse_redirect_ip(string_view location, uint32_t *address_be) {
    for (int i = 0; i < REDIRECT_PIECES; ++i) {
        location.remove_prefix(std::min(location.find_first_not_of('/'), location.size()));
        const string_view piece = location.substr(0, location.find('/'));
        location.remove_prefix(piece.size());
        if (!is_dotted_quad(piece))
            continue;
        char text[IPV4_TEXT_MAX + 1] = {};
        piece.copy(text, IPV4_TEXT_MAX);
        if (inet_pton(AF_INET, text, address_be) == 1)
            return 0;
    }
    return -1;
}
