// Is this packet of a subscriber's Wi-Fi calling? Such a packet belongs to the IKE exchange or the
// NAT-traversing IPsec tunnel (RFC 7296, RFC 3948) between a phone and an ePDG of its carrier.
//
// A step of detection. The interfaces of the packet say which carriers count; their ePDGs are
// compared with the packet's addresses, then with the name that the DNS cache or the platform has
// for one of them. The links that it leaves in the context are borrowed from the tables.
#pragma once

#include "packet/records/context.h"

// Returns 1 when the packet is of a carrier's ePDG and was tagged with the carrier's priority, else
// 0. A priority whose low byte is WFC_PRIORITY_NONE decides the packet, too, but is no tag.
int jorn_detect_wificalling(pkt_ctx *pkt);

// Fills wfc_ip and wfc_fqdn with the destination's name, or where it has none with the source's.
// Returns 0 when a name was found that isn't empty, else -1.
int jorn_wificalling_get_fqdn_from_dns_cache(pkt_ctx *pkt);
