#include "packet/decode/decode.h"

#include "core/base/log.h"
#include "core/state/stats.h"
#include "core/text/text.h"
#include "packet/decode/trailer.h"

namespace {

constexpr size_t ETHERNET_HEADER_SIZE = 14;
constexpr size_t PPPOE_HEADER_SIZE = 8; // RFC 2516 session header and the PPP protocol field
constexpr size_t ARP_FIXED_HEADER_SIZE = 8;
constexpr uint16_t PPP_PROTOCOL_IPV4 = 0x0021;

byte_view whole(byte_view packet) {
    return packet;
}

byte_view ipv4_in_pppoe_session(byte_view packet) {
    return packet.u16(6) == PPP_PROTOCOL_IPV4 ? packet.from(PPPOE_HEADER_SIZE) : byte_view();
}

// What a type stands for: a tag that ends with the next type, a packet that is or holds IPv4, or
// one that has a decoder of its own. A row without any of them is passed over.
struct ether_type_row {
    uint16_t ether_type;
    size_t tag_size = 0;
    byte_view (*ipv4_in)(byte_view packet) = nullptr;
    int (*decode)(pkt_ctx *, byte_view packet) = nullptr;
};

constexpr ether_type_row ETHER_TYPES[] = {
    {.ether_type = 0x0800, .ipv4_in = whole},                 // IPv4
    {.ether_type = 0x0806, .decode = jorn_decode_arp_pkt},    // ARP
    {.ether_type = 0x8035, .decode = jorn_decode_arp_pkt},    // reverse ARP
    {.ether_type = 0x8100, .tag_size = 4},                    // IEEE 802.1Q tag
    {.ether_type = 0x8864, .ipv4_in = ipv4_in_pppoe_session}, // PPPoE session
    {.ether_type = 0x86DD},                                   // IPv6
    {.ether_type = 0x8137},                                   // IPX
    {.ether_type = 0x9000},                                   // Ethernet configuration testing
};

const ether_type_row *find_row(uint16_t ether_type) {
    for (const ether_type_row &row : ETHER_TYPES) {
        if (row.ether_type == ether_type)
            return &row;
    }
    return nullptr;
}

// What a frame carries behind one tag at most.
struct frame_content {
    uint16_t ether_type;
    const ether_type_row *row; // null: unknown
    byte_view packet;
};

frame_content look_into(byte_view frame) {
    const uint16_t ether_type = frame.u16(ETHERNET_HEADER_SIZE - 2);
    const byte_view packet = frame.from(ETHERNET_HEADER_SIZE);
    const ether_type_row *row = find_row(ether_type);
    if (row == nullptr || row->tag_size == 0 || !packet.holds(row->tag_size))
        return {ether_type, row, packet};
    const uint16_t tagged_type = packet.u16(row->tag_size - 2);
    const ether_type_row *tagged_row = find_row(tagged_type);
    const bool second_tag = tagged_row != nullptr && tagged_row->tag_size != 0;
    return {tagged_type, second_tag ? nullptr : tagged_row, packet.from(row->tag_size)};
}

} // namespace

int jorn_decode_eth_pkt(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes) {
    jorn_stats_inc(STATS_ETHERNET);
    const byte_view frame = frame_view(bytes, pkthdr->caplen);
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

    const frame_content content = look_into(frame);
    ctx->ether_type = content.ether_type;
    if (content.row == nullptr) {
        JORN_ERROR("unknown eth type : %X\n", ctx->ether_type);
        jorn_stats_inc(STATS_UNKNOWN_ETHER_TYPE);
    } else if (content.row->ipv4_in != nullptr) {
        jorn_decode_ipv4_pkt(ctx, content.row->ipv4_in(content.packet));
    } else if (content.row->decode != nullptr) {
        content.row->decode(ctx, content.packet);
    }
    return 0;
}

byte_view ipv4_packet_in(byte_view frame) {
    const frame_content content = look_into(frame);
    return content.row != nullptr && content.row->ipv4_in != nullptr
               ? content.row->ipv4_in(content.packet)
               : byte_view();
}

int jorn_decode_arp_pkt(pkt_ctx *ctx, byte_view packet) {
    if (!packet.holds(ARP_FIXED_HEADER_SIZE))
        return 0;
    jorn_stats_inc(STATS_ARP);
    ctx->detect_flags |= DETECT_CLASSIFIED;
    copy_text(ctx->app_name, "ARP");
    return 0;
}
