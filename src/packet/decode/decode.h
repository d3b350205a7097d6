// The decoders: from the bytes of one Ethernet frame to the header fields of the packet context.
//
// The Ethernet decoder is the packet processor of Ethernet captures and starts the chain; each
// decoder hands its payload to the next. They never drop a packet and never decide anything: what
// can't be decoded leaves its fields at zero. A header that doesn't fit into the captured bytes is
// not present, and neither is what a header with impossible lengths would lead to. They count into
// the statistics and allocate nothing. Each returns 0.
//
// A new decoder: a declaration here, a file of its own, and a row in the table of the decoder that
// leads to it (EtherTypes in decode_eth.cpp, IP protocols in decode_ipv4.cpp). A new tag is a row
// alone.
#pragma once

#include "packet/decode/cursor.h"
#include "packet/records/context.h"

#include <cstddef>
#include <cstdint>
#include <pcap/pcap.h>
#include <sys/socket.h>

// IEEE 802.3 with at most one IEEE 802.1Q tag. `bytes` holds `pkthdr->caplen` captured bytes, the
// kernel's trailer included where there is one; only what lies before it is decoded.
int jorn_decode_eth_pkt(pkt_ctx *ctx, const pcap_pkthdr *pkthdr, const uint8_t *bytes);

// The IPv4 packet in a frame without a trailer, where the Ethernet decoder finds it; up to the end
// of the frame, its padding included. Empty when there is none.
byte_view ipv4_packet_in(byte_view frame);

// RFC 791. `packet` starts with the IPv4 header.
int jorn_decode_ipv4_pkt(pkt_ctx *ctx, byte_view packet);

// RFC 9293. `segment` is what follows the IPv4 header in the frame, padding included.
int jorn_decode_tcp_pkt(pkt_ctx *ctx, byte_view segment);

// RFC 768. `datagram` starts with the UDP header.
int jorn_decode_udp_pkt(pkt_ctx *ctx, byte_view datagram);

// RFC 826 and, for reverse ARP, RFC 903. `packet` starts with the ARP header.
int jorn_decode_arp_pkt(pkt_ctx *ctx, byte_view packet);

// RFC 9112, server responses only: takes the target of a 302 redirect. `payload` is what follows
// the TCP header in the frame.
int jorn_decode_http_pkt(pkt_ctx *ctx, byte_view payload);

// Writes an address as text into `buffer`, which is zeroed first: an IPv4 or IPv6 socket address,
// "Unknown AF" for any other family. Returns `buffer`.
char *jorn_addr_to_str(const sockaddr *address, char *buffer, size_t size);
