// What the daemon learns about one packet. The context stays inside the daemon: it lives for one
// capture callback.
#pragma once

#include "platform/records.h"

#include <cstddef>
#include <cstdint>

struct arc_policy;
struct arc_rule;
struct web_policy;
struct wificalling_policy;

// Values of pkt_ctx::app_source: who named the flow.
enum app_source : uint8_t {
    APP_SOURCE_NONE = 0,
    APP_SOURCE_BUILTIN_PORT = 1,
    APP_SOURCE_DNS = 2,
    APP_SOURCE_DPI = 3,
    APP_SOURCE_USER_PORT = 4,
    APP_SOURCE_USERDEF = 5,
};

// Values of pkt_ctx::arc_action; 0 while no ARC decision was made.
enum arc_action : uint16_t {
    ARC_ACTION_ALLOW = 1,
    ARC_ACTION_BLOCK = 2,
    ARC_ACTION_NO_POLICY = 3,
    ARC_ACTION_QOS = 6,
};

inline constexpr uint16_t WEB_ACTION_BLOCK = 2;
inline constexpr uint32_t WHITE_HIT = 1;
inline constexpr uint32_t BLACK_HIT = 2;
inline constexpr uint8_t DETECT_CLASSIFIED = 2; // bit value of pkt_ctx::detect_flags
inline constexpr uint8_t WFC_PRIORITY_NONE = 255;

// pkt_ctx, the decoded-packet context: everything that one step of the packet's way learns for a
// later one. All zeros at the start but for wfc_priority (WFC_PRIORITY_NONE). Texts are
// NUL-terminated unless said otherwise. IPv4 addresses are in network byte order, ports in host
// byte order.
struct pkt_ctx {
    // From the headers.
    uint32_t src_ip;
    uint32_t dst_ip;
    uint16_t src_port;
    uint16_t dst_port;
    uint16_t ether_type; // behind one IEEE 802.1Q tag: the inner type
    uint8_t ip_proto;
    uint8_t dst_mac[6];
    uint8_t src_mac[6];
    char http_location[33]; // what follows "Location:" in a 302 response; not terminated when full
    uint8_t http_redirect;  // 1 = http_location was taken from this packet

    // What the flow is.
    uint16_t app_id;
    uint16_t app_cat_id;
    char app_name[65];
    char orig_app[65];   // a second finding, when app_name was taken
    char web_domain[65]; // the domain whose web category was asked for
    uint8_t non_ip;
    uint16_t arc_action; // enum arc_action
    uint16_t web_action;

    // From the trailer.
    uint32_t dst_utp_id;
    uint32_t src_utp_id;
    uint32_t trailer_word2;
    uint32_t trailer_word3;
    uint32_t dst_if_index;
    uint32_t src_if_index;
    char dst_if_name[16]; // not terminated when full
    char src_if_name[16];

    // Policies. The links are borrowed from the configuration tables for this callback.
    const struct arc_policy *arc_cfg; // of the UTP looked at
    const struct arc_rule *arc_rule;  // the rule that fits
    const struct web_policy *web_cfg;
    uint32_t wfc_ref_count;
    const struct wificalling_policy *wfc_refs[5];
    uint8_t wfc_priority;
    uint8_t wfc_ref_index;
    uint32_t wfc_ip;
    char wfc_fqdn[64];
    char wfc_if_name[24];
    uint32_t epdg_ip;
    uint8_t uf_reply[148]; // the URL-filtering agent's reply
    uint32_t white_hit;
    uint32_t black_hit;
    uint32_t arc_match_src;
    uint32_t arc_match_utp;

    uint8_t detect_flags;
    uint8_t app_source; // enum app_source
    uint8_t match_info; // 1 = a user-defined application or port-service entry matched
    uint8_t url_filter; // 1 = the web decision owns this packet
    struct flow_key flow_key;
};
