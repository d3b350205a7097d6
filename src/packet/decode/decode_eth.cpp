#include "packet/decode/decode.h"

#include "core/base/log.h"
#include "core/state/stats.h"
#include "core/text/text.h"
#include "packet/decode/trailer.h"

namespace {

constexpr size_t ETHERNET_HEADER_SIZE = 14;
constexpr size_t VLAN_TAG_SIZE = 4;
constexpr size_t PPPOE_HEADER_SIZE = 8; // RFC 2516 session header and the PPP protocol field
constexpr size_t ARP_FIXED_HEADER_SIZE = 8;
constexpr uint16_t ETHER_TYPE_VLAN = 0x8100;
constexpr uint16_t PPP_PROTOCOL_IPV4 = 0x0021;

int decode_pppoe_session(pkt_ctx *ctx, byte_view packet) {
    if (packet.holds(PPPOE_HEADER_SIZE) && packet.u16(6) == PPP_PROTOCOL_IPV4)
        jorn_decode_ipv4_pkt(ctx, packet.from(PPPOE_HEADER_SIZE));
    return 0;
}

int pass_over(pkt_ctx *, byte_view) {
    return 0;
}

struct ether_type_row {
    uint16_t ether_type;
    int (*decode)(pkt_ctx *, byte_view);
};

constexpr ether_type_row ETHER_TYPES[] = {
    {0x0800, jorn_decode_ipv4_pkt}, // IPv4
    {0x0806, jorn_decode_arp_pkt},  // ARP
    {0x8035, jorn_decode_arp_pkt},  // reverse ARP
    {0x8864, decode_pppoe_session}, // PPPoE session
    {0x86DD, pass_over},            // IPv6
    {0x8137, pass_over},            // IPX
    {0x9000, pass_over},            // Ethernet configuration testing
};

} // namespace

int jorn_decode_eth_pkt(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    jorn_stats_inc(STATS_ETHERNET);
    byte_view frame = frame_view(bytes, pkthdr->caplen);
    if (!frame.holds(ETHERNET_HEADER_SIZE))
        return 0;

    frame.copy(0, ctx->dst_mac, sizeof ctx->dst_mac);
    frame.copy(6, ctx->src_mac, sizeof ctx->src_mac);
    ctx->ether_type = frame.u16(12);
    const uint8_t *src = ctx->src_mac;
    const uint8_t *dst = ctx->dst_mac;
    JORN_DEBUG("%02X:%02X:%02X:%02X:%02X:%02X -> %02X:%02X:%02X:%02X:%02X:%02X, "
               "ether_type is %X\n",
               src[0], src[1], src[2], src[3], src[4], src[5], dst[0], dst[1], dst[2], dst[3],
               dst[4], dst[5], ctx->ether_type);

    if (ctx->ether_type == ETHER_TYPE_VLAN) {
        frame = frame.from(VLAN_TAG_SIZE);
        if (!frame.holds(ETHERNET_HEADER_SIZE))
            return 0;
        ctx->ether_type = frame.u16(12);
    }
    for (const ether_type_row &row : ETHER_TYPES) {
        if (row.ether_type == ctx->ether_type)
            return row.decode(ctx, frame.from(ETHERNET_HEADER_SIZE));
    }
    JORN_ERROR("unknown eth type : %X\n", ctx->ether_type);
    jorn_stats_inc(STATS_UNKNOWN_ETHER_TYPE);
    return 0;
}

int jorn_decode_arp_pkt(pkt_ctx *ctx, byte_view packet) {
    if (!packet.holds(ARP_FIXED_HEADER_SIZE))
        return 0;
    jorn_stats_inc(STATS_ARP);
    ctx->detect_flags |= DETECT_CLASSIFIED;
    copy_text(ctx->app_name, "ARP");
    return 0;
}
