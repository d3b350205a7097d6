#include "avcore/frame.h"

#include "packet/decode.h"
#include "packet/flow_key.h"

#include <cstring>

namespace avcore {

frame_facts decode_frame(std::span<const uint8_t> frame_and_trailer) {
    pcap_pkthdr header = {};
    header.caplen = static_cast<bpf_u_int32>(frame_and_trailer.size());
    header.len = header.caplen;
    pkt_ctx ctx = {};
    jorn_decode_eth_pkt(&ctx, &header, frame_and_trailer.data());
    jorn_build_flow_key(&ctx);

    frame_facts facts;
    facts.key = ctx.flow_key;
    memcpy(facts.sender.mac.data(), ctx.src_mac, facts.sender.mac.size());
    memcpy(facts.receiver.mac.data(), ctx.dst_mac, facts.receiver.mac.size());
    facts.sender.ip_be = ctx.src_ip;
    facts.receiver.ip_be = ctx.dst_ip;
    facts.sender.port = ctx.src_port;
    facts.receiver.port = ctx.dst_port;
    facts.ether_type = ctx.ether_type;
    facts.ip_proto = ctx.ip_proto;
    facts.ipv4 = ctx.src_ip != 0 || ctx.dst_ip != 0 || ctx.ip_proto != 0;
    return facts;
}

} // namespace avcore
