#include "packet/decode/flow_key.h"

#include <arpa/inet.h>
#include <cstring>

void jorn_build_flow_key(pkt_ctx *ctx) {
    flow_key &key = ctx->flow_key;
    key = {};
    key.non_ip = ctx->non_ip;
    memcpy(key.dst_mac, ctx->dst_mac, sizeof key.dst_mac);
    memcpy(key.src_mac, ctx->src_mac, sizeof key.src_mac);
    if (ctx->non_ip != 0) {
        key.dst_port_be = htons(ctx->ether_type);
        return;
    }
    key.dst_port_be = htons(ctx->dst_port);
    key.src_port_be = htons(ctx->src_port);
    key.ip_proto = ctx->ip_proto;
    key.dst_ip_be = ctx->dst_ip;
    key.src_ip_be = ctx->src_ip;
}
