// The records that the daemon and the access point's platform exchange: the trailer that the kernel
// module puts behind each captured frame, its answer, the verdict, and what the operations of psm.h
// and psms.h are given and fill.
//
// Plain C (C11), and C++20 for the daemon and its tools, which use these declarations and no
// others. They are exchanged byte for byte, in the access point's own byte order; network byte
// order is said, by the suffix _be or beside the record. No layout depends on the compiler or on 32
// or 64 bits. They are copied in and out with memcpy and never cast: behind a frame none need be
// aligned. Bytes called reserved are 0 when the daemon sends them, and it reads none, unless the
// record says otherwise.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define RECORD_HOLDS(statement) static_assert(statement)
#else
#define RECORD_HOLDS(statement) _Static_assert(statement, #statement)
#endif

// --- the packet: trailer, flow key, verdict

// av_pkt_trailer, the last 276 bytes of a captured frame:
//
//    0 dst_utp_id   16 dst_if_index   56 flow_id      72 dpi_status
//    4 src_utp_id   20 src_if_index   60 filter_type  76 dpi_app_id   78 dpi_cat_id
//    8 word2        24 dst_if_name    64 dpi_retry    80 dpi_app_name
//   12 word3        40 src_if_name    68 url_retry   208 kernel_domain
struct av_pkt_trailer {
    uint32_t dst_utp_id; // user traffic profile of the destination side; 0 = none
    uint32_t src_utp_id; // and of the source side, the side that sent this frame
    uint32_t trailer_word2;
    uint32_t trailer_word3; // web UTP ids; word 3 is tried first
    uint32_t dst_if_index;
    uint32_t src_if_index;
    char dst_if_name[16]; // not terminated when full, like every text of this record
    char src_if_name[16];
    uint32_t flow_id;
    uint32_t filter_type; // av_filter bits: the inspections that the module asks for
    int32_t dpi_retry;
    int32_t url_retry;
    uint32_t dpi_status; // av_dpi_status
    uint16_t dpi_app_id;
    uint16_t dpi_cat_id;
    char dpi_app_name[128];
    char kernel_domain[68]; // empty when the first byte is 0
};
RECORD_HOLDS(sizeof(struct av_pkt_trailer) == 276);
RECORD_HOLDS(offsetof(struct av_pkt_trailer, dst_if_name) == 24);
RECORD_HOLDS(offsetof(struct av_pkt_trailer, flow_id) == 56);
RECORD_HOLDS(offsetof(struct av_pkt_trailer, dpi_status) == 72);
RECORD_HOLDS(offsetof(struct av_pkt_trailer, dpi_app_name) == 80);
RECORD_HOLDS(offsetof(struct av_pkt_trailer, kernel_domain) == 208);

// The highest id of a user traffic profile under which the daemon looks for a policy.
enum { AV_UTP_ID_MAX = 63 };

// Bits of av_pkt_trailer.filter_type.
enum av_filter {
    AV_FILTER_URL = 1,
    AV_FILTER_DPI = 2,
    AV_FILTER_WIFICALLING = 4,
};

// Values of av_pkt_trailer.dpi_status; any other value: the engine gave up.
enum av_dpi_status {
    AV_DPI_MORE_PACKETS = 1,
    AV_DPI_IDENTIFIED = 2,
};

// The names in av_pkt_trailer.dpi_app_name that say no more than that it is web traffic. The daemon
// passes over them.
#define AV_DPI_BARE_WEB "World Wide Web HTTP"
#define AV_DPI_BARE_HTTP "HTTP"
#define AV_DPI_BARE_TLS "HTTP Protocol over TLS SSL"

// flow_key, 60 bytes. For a frame without IPv4 header the addresses, ports and protocol are 0.
struct flow_key {
    uint32_t non_ip;
    uint8_t reserved1[4];
    uint8_t dst_mac[6];
    uint8_t src_mac[6];
    uint16_t dst_port_be; // the Ethernet type instead when non_ip is set
    uint16_t src_port_be;
    uint8_t ip_proto;
    uint8_t reserved2[3];
    uint32_t dst_ip_be;
    uint32_t src_ip_be;
    uint8_t reserved3[24];
};
RECORD_HOLDS(sizeof(struct flow_key) == 60);
RECORD_HOLDS(offsetof(struct flow_key, dst_mac) == 8);
RECORD_HOLDS(offsetof(struct flow_key, dst_port_be) == 20);
RECORD_HOLDS(offsetof(struct flow_key, ip_proto) == 24);
RECORD_HOLDS(offsetof(struct flow_key, dst_ip_be) == 28);
RECORD_HOLDS(offsetof(struct flow_key, src_ip_be) == 32);

// Values of av_verdict.verdict.
enum av_verdict_code {
    AV_VERDICT_ALLOW = 1,
    AV_VERDICT_WHITE_LIST = 2,
    AV_VERDICT_DENY = 3,
    AV_VERDICT_RATE_LIMIT = 4,
    AV_VERDICT_QOS = 5,
};

// Values of av_verdict.wificalling_f: which path decided; 0 for any other.
enum av_deciding_path {
    AV_DECIDED_BY_WEB = 1,
    AV_DECIDED_BY_WIFICALLING = 5,
};

// Values of av_verdict.policy_type.
enum av_policy_type {
    AV_POLICY_DEFAULT = 2,
    AV_POLICY_DENY = 3,
    AV_POLICY_RATE_LIMIT = 4,
    AV_POLICY_QOS = 5,
};

// Values of av_qos.mark_pri: the field that is marked (IEEE 802.1Q, RFC 2474).
enum av_mark_field {
    AV_MARK_DOT1P = 0,
    AV_MARK_DSCP = 1,
    AV_MARK_DOT1P_AND_DSCP = 2,
};

// The QoS bytes of a verdict, and the action block of psms_rflow_set_app, 16 bytes. All ones means
// "no decision"; reserved is all ones always. In a verdict the two members about the match are
// always those of the packet, 0 where no rule fitted.
struct av_qos {
    uint8_t deny;     // 1 deny, 0 allow
    uint8_t mark_pri; // av_mark_field
    uint8_t mark_type;
    uint8_t classify; // 1 = QoS classification on
    uint8_t classify_type;
    uint8_t arc_match_src; // 1 = the ARC rule matched on the source UTP
    uint8_t url_decided;   // URL-filtering path: 1 = decided by a block, black or white list
    uint8_t reserved;
    uint16_t ratelimit_up; // in the controller's unit
    uint16_t ratelimit_down;
    uint32_t arc_match_utp;
};
RECORD_HOLDS(sizeof(struct av_qos) == 16);
RECORD_HOLDS(offsetof(struct av_qos, url_decided) == 6);
RECORD_HOLDS(offsetof(struct av_qos, ratelimit_up) == 8);
RECORD_HOLDS(offsetof(struct av_qos, arc_match_utp) == 12);

// The command of psms_wdl_ioctl that takes a verdict; its argument is 0.
enum { AV_IOCTL_SET_VERDICT = 8 };

// av_verdict, 232 bytes:
//
//    0 verdict           132 wfc_fqdn     204 qos
//    4 flow_key          198 app_id       220 match_info
//   64 default_policy    200 app_cat_id   224 wificalling_f
//   68 app_name                           228 policy_type
struct av_verdict {
    uint32_t verdict;         // av_verdict_code
    struct flow_key flow_key; // of the frame that the verdict answers
    uint32_t default_policy;  // 1 = the daemon's decision stands
    char app_name[64];        // lower case, NUL-terminated
    char wfc_fqdn[64];        // Wi-Fi calling verdicts only
    uint16_t reserved1;
    uint16_t app_id;
    uint16_t app_cat_id;
    uint16_t reserved2;
    struct av_qos qos;
    uint32_t match_info;
    uint32_t wificalling_f; // av_deciding_path
    uint32_t policy_type;   // av_policy_type
};
RECORD_HOLDS(sizeof(struct av_verdict) == 232);
RECORD_HOLDS(offsetof(struct av_verdict, flow_key) == 4);
RECORD_HOLDS(offsetof(struct av_verdict, default_policy) == 64);
RECORD_HOLDS(offsetof(struct av_verdict, app_name) == 68);
RECORD_HOLDS(offsetof(struct av_verdict, wfc_fqdn) == 132);
RECORD_HOLDS(offsetof(struct av_verdict, app_id) == 198);
RECORD_HOLDS(offsetof(struct av_verdict, qos) == 204);
RECORD_HOLDS(offsetof(struct av_verdict, match_info) == 220);
RECORD_HOLDS(offsetof(struct av_verdict, policy_type) == 228);

// --- what is set of a flow that has passed, and of names

// Of psms_rflow_set_app: the name of a flow that keeps the one it has, and the verdict that allows
// it; the other verdict is AV_VERDICT_DENY.
#define AV_ANY_APPLICATION "***"
enum { AV_SET_APP_ALLOW = AV_VERDICT_WHITE_LIST };

// Whose DNS answers the operations of safe search are about.
enum av_safesearch_mode {
    AV_SAFESEARCH_INTERFACE = 1,
    AV_SAFESEARCH_UTP = 2,
};

// --- the URL-filtering agent

// urlf_request, 184 bytes: the question about a domain.
//
//    0 request_type     68 src_if_index    80 dst_if_name   112 reserved
//    4 flow_key         72 trailer_word2   96 src_if_name   116 domain_length
//   64 dst_if_index     76 trailer_word3                    120 domain
struct urlf_request {
    uint32_t request_type; // URLF_REQUEST_CATEGORY
    struct flow_key flow_key;
    uint32_t dst_if_index; // this one and the next five: as the trailer has them
    uint32_t src_if_index;
    uint32_t trailer_word2;
    uint32_t trailer_word3;
    char dst_if_name[16];
    char src_if_name[16];
    uint32_t reserved;
    uint32_t domain_length;
    char domain[64]; // NUL-terminated
};
RECORD_HOLDS(sizeof(struct urlf_request) == 184);
RECORD_HOLDS(offsetof(struct urlf_request, flow_key) == 4);
RECORD_HOLDS(offsetof(struct urlf_request, dst_if_index) == 64);
RECORD_HOLDS(offsetof(struct urlf_request, dst_if_name) == 80);
RECORD_HOLDS(offsetof(struct urlf_request, domain_length) == 116);
RECORD_HOLDS(offsetof(struct urlf_request, domain) == 120);

enum { URLF_REQUEST_CATEGORY = 2 };
enum { URLF_CATEGORIES = 5 };

// Values of urlf_answer.status that mean something to the daemon.
enum {
    URLF_STATUS_NO_LIST = 5,     // the agent has no categories for the domain
    URLF_STATUS_UNREACHABLE = 7, // it could not reach its server
};

// urlf_answer, 32 bytes, what an answer begins with:
//   0 status   4 reputation   8 categories   28 category_count
struct urlf_answer {
    int32_t status;
    int32_t reputation;
    int32_t categories[URLF_CATEGORIES]; // ids of g_cat_map; the first is the main one
    int32_t category_count; // entries 0 to the count, inclusive, are examined, within the five
};
RECORD_HOLDS(sizeof(struct urlf_answer) == 32);
RECORD_HOLDS(offsetof(struct urlf_answer, categories) == 8);
RECORD_HOLDS(offsetof(struct urlf_answer, category_count) == 28);

// urlf_reply, 148 bytes; what follows the answer is the agent's.
struct urlf_reply {
    struct urlf_answer answer;
    uint8_t rest[116];
};
RECORD_HOLDS(sizeof(struct urlf_reply) == 148);

// --- roaming; addresses and ports are in network byte order

// Values of the address families.
enum {
    ROAM_FAMILY_IPV4 = 2,
    ROAM_FAMILY_IPV6 = 10,
};

// roam_notify, 76 bytes: that a station went to another access point. What is reserved comes from
// the controller and is passed on.
//
//    0 sta_mac       12 to_ap_mac        24 from_ap_ipv4   48 to_ap_family   60 to_ap_ipv6
//    6 from_ap_mac   18 from_ap_family   28 from_ap_ipv6   56 to_ap_ipv4
struct roam_notify {
    uint8_t sta_mac[6];
    uint8_t from_ap_mac[6];
    uint8_t to_ap_mac[6];
    uint16_t from_ap_family;
    uint8_t reserved1[4];
    uint32_t from_ap_ipv4;
    uint8_t from_ap_ipv6[16];
    uint8_t reserved2[4];
    uint16_t to_ap_family;
    uint8_t reserved3[6];
    uint32_t to_ap_ipv4;
    uint8_t to_ap_ipv6[16];
};
RECORD_HOLDS(sizeof(struct roam_notify) == 76);
RECORD_HOLDS(offsetof(struct roam_notify, from_ap_family) == 18);
RECORD_HOLDS(offsetof(struct roam_notify, from_ap_ipv4) == 24);
RECORD_HOLDS(offsetof(struct roam_notify, to_ap_family) == 48);
RECORD_HOLDS(offsetof(struct roam_notify, to_ap_ipv4) == 56);
RECORD_HOLDS(offsetof(struct roam_notify, to_ap_ipv6) == 60);

// roam_flow, 132 bytes: one flow of a station. What is reserved is the platform's and passed on.
//
//    0 server_index   20 word_a   28 port_a   36 ipv4       68 server_name
//    4 flow_tag       26 word_b   30 port_b
struct roam_flow {
    uint32_t server_index; // which of `ipv4` is the server: 0 or 1, nothing else
    uint32_t flow_tag;
    uint8_t reserved1[12];
    uint8_t word_a[2]; // these two are shown, not read
    uint8_t reserved2[4];
    uint8_t word_b[2];
    uint16_t port_a;
    uint16_t port_b;
    uint8_t reserved3[4];
    uint32_t ipv4[2];
    uint8_t reserved4[24];
    char server_name[64];
};
RECORD_HOLDS(sizeof(struct roam_flow) == 132);
RECORD_HOLDS(offsetof(struct roam_flow, word_a) == 20);
RECORD_HOLDS(offsetof(struct roam_flow, word_b) == 26);
RECORD_HOLDS(offsetof(struct roam_flow, port_a) == 28);
RECORD_HOLDS(offsetof(struct roam_flow, ipv4) == 36);
RECORD_HOLDS(offsetof(struct roam_flow, server_name) == 68);

enum { ROAM_FLOWS_MAX = 128 }; // that one answer, and one message of the bus, holds

#define ROAM_TOPIC "RflowRoamInfo"

// roam_message, 16,900 bytes, what goes over the bus by that topic: without the flows that it
// doesn't hold.
struct roam_message {
    uint32_t count;
    struct roam_flow flows[ROAM_FLOWS_MAX];
};
RECORD_HOLDS(sizeof(struct roam_message) == 16900);

#undef RECORD_HOLDS
