#include "packet/decode/decode.h"

#include "core/base/log.h"
#include "core/state/stats.h"
#include "core/text/text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

constexpr size_t IPV4_MIN_HEADER_SIZE = 20;
constexpr size_t TCP_MIN_HEADER_SIZE = 20;
constexpr size_t UDP_HEADER_SIZE = 8;
constexpr uint16_t FRAGMENT_OFFSET_MASK = 0x1FFF;
constexpr uint16_t MORE_FRAGMENTS = 0x2000;
constexpr uint16_t HTTP_PORT = 80;

int decode_icmp(pkt_ctx *ctx, byte_view) {
    ctx->detect_flags |= DETECT_CLASSIFIED;
    copy_text(ctx->app_name, "ICMP");
    return 0;
}

int pass_over(pkt_ctx *, byte_view) {
    return 0;
}

struct ip_protocol_row {
    uint8_t protocol;
    stats_id counter;
    int (*decode)(pkt_ctx *, byte_view);
};

constexpr ip_protocol_row IP_PROTOCOLS[] = {
    {IPPROTO_TCP, STATS_TCP, jorn_decode_tcp_pkt},
    {IPPROTO_UDP, STATS_UDP, jorn_decode_udp_pkt},
    {IPPROTO_ICMP, STATS_ICMP, decode_icmp},
    {IPPROTO_IGMP, STATS_IGMP, pass_over},
};

void log_addresses(const pkt_ctx *ctx) {
    char src[128];
    char dst[128];
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ctx->src_ip;
    jorn_addr_to_str(reinterpret_cast<const sockaddr *>(&address), src, sizeof src);
    address.sin_addr.s_addr = ctx->dst_ip;
    jorn_addr_to_str(reinterpret_cast<const sockaddr *>(&address), dst, sizeof dst);
    JORN_DEBUG_AS("jorn_decode_ipv4_pkt", "%s->%s, the ip protocol is %d\n", src, dst,
                  ctx->ip_proto);
}

} // namespace

int jorn_decode_ipv4_pkt(pkt_ctx *ctx, byte_view packet) {
    if (!packet.holds(IPV4_MIN_HEADER_SIZE))
        return 0;
    jorn_stats_inc(STATS_IPV4);
    ctx->non_ip = 0;
    ctx->ip_proto = packet.u8(9);
    packet.copy(12, &ctx->src_ip, sizeof ctx->src_ip);
    packet.copy(16, &ctx->dst_ip, sizeof ctx->dst_ip);
    if (jorn_log_enabled(JORN_LOG_DEBUG))
        log_addresses(ctx);

    const size_t header_size = size_t{packet.u8(0) & 0x0Fu} * 4;
    if (header_size < IPV4_MIN_HEADER_SIZE || !packet.holds(header_size))
        return 0;
    // The total length bounds nothing: it is 0 where the network card cuts the segments.
    const byte_view payload = packet.from(header_size);
    const size_t total_size = packet.u16(2);

    const uint16_t fragment = packet.u16(6);
    const bool later_fragment = (fragment & FRAGMENT_OFFSET_MASK) != 0;
    if ((later_fragment || (fragment & MORE_FRAGMENTS) != 0) && total_size != header_size) {
        jorn_stats_inc(STATS_IPV4_FRAGMENT);
        if (later_fragment || ctx->ip_proto != IPPROTO_UDP)
            return 0;
    }
    for (const ip_protocol_row &row : IP_PROTOCOLS) {
        if (row.protocol == ctx->ip_proto) {
            jorn_stats_inc(row.counter);
            return row.decode(ctx, payload);
        }
    }
    JORN_ERROR("unknown ip protocol : %d\n", ctx->ip_proto);
    jorn_stats_inc(STATS_OTHER_IP_PROTOCOL);
    return 0;
}

int jorn_decode_tcp_pkt(pkt_ctx *ctx, byte_view segment) {
    if (!segment.holds(TCP_MIN_HEADER_SIZE))
        return 0;
    ctx->src_port = segment.u16(0);
    ctx->dst_port = segment.u16(2);
    JORN_DEBUG("tcp packet, src port:%d, dst port:%d\n", ctx->src_port, ctx->dst_port);
    if (ctx->src_port != HTTP_PORT)
        return 0;
    jorn_stats_inc(STATS_HTTP_RESPONSE);
    const size_t header_size = (size_t{segment.u8(12)} >> 4) * 4;
    if (header_size < TCP_MIN_HEADER_SIZE)
        return 0;
    return jorn_decode_http_pkt(ctx, segment.from(header_size));
}

int jorn_decode_udp_pkt(pkt_ctx *ctx, byte_view datagram) {
    if (!datagram.holds(UDP_HEADER_SIZE))
        return 0;
    ctx->src_port = datagram.u16(0);
    ctx->dst_port = datagram.u16(2);
    JORN_DEBUG("udp packet, src port:%d, dst port:%d\n", ctx->src_port, ctx->dst_port);
    return 0;
}

char *jorn_addr_to_str(const sockaddr *address, char *buffer, size_t size) {
    if (size == 0)
        return buffer;
    memset(buffer, 0, size);
    if (address->sa_family == AF_INET) {
        sockaddr_in ipv4;
        memcpy(&ipv4, address, sizeof ipv4);
        inet_ntop(AF_INET, &ipv4.sin_addr, buffer, static_cast<socklen_t>(size));
    } else if (address->sa_family == AF_INET6) {
        sockaddr_in6 ipv6;
        memcpy(&ipv6, address, sizeof ipv6);
        inet_ntop(AF_INET6, &ipv6.sin6_addr, buffer, static_cast<socklen_t>(size));
    } else {
        strncpy(buffer, "Unknown AF", size - 1);
    }
    return buffer;
}
