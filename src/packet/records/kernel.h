// What the daemon and the kernel module tell each other about a packet: the trailer behind each
// captured frame, the flow key and the verdict.
//
// Exchanged byte for byte, in the access point's own byte order unless a member says otherwise.
// Copied in and out with memcpy and never cast.
#pragma once

#include <cstddef>
#include <cstdint>

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
static_assert(sizeof(av_pkt_trailer) == 276);
static_assert(offsetof(av_pkt_trailer, dst_if_name) == 24);
static_assert(offsetof(av_pkt_trailer, flow_id) == 56);
static_assert(offsetof(av_pkt_trailer, dpi_status) == 72);
static_assert(offsetof(av_pkt_trailer, dpi_app_name) == 80);
static_assert(offsetof(av_pkt_trailer, kernel_domain) == 208);

// Bits of av_pkt_trailer::filter_type.
enum av_filter : uint32_t {
    AV_FILTER_URL = 1,
    AV_FILTER_DPI = 2,
    AV_FILTER_WIFICALLING = 4,
};

// Values of av_pkt_trailer::dpi_status; any other value: the engine gave up.
enum av_dpi_status : uint32_t {
    AV_DPI_MORE_PACKETS = 1,
    AV_DPI_IDENTIFIED = 2,
};

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
static_assert(sizeof(flow_key) == 60);
static_assert(offsetof(flow_key, dst_mac) == 8);
static_assert(offsetof(flow_key, dst_port_be) == 20);
static_assert(offsetof(flow_key, ip_proto) == 24);
static_assert(offsetof(flow_key, dst_ip_be) == 28);
static_assert(offsetof(flow_key, src_ip_be) == 32);

// Values of av_verdict::verdict.
enum av_verdict_code : uint32_t {
    AV_VERDICT_ALLOW = 1,
    AV_VERDICT_WHITE_LIST = 2,
    AV_VERDICT_DENY = 3,
    AV_VERDICT_RATE_LIMIT = 4,
    AV_VERDICT_QOS = 5,
};

// Values of av_verdict::wificalling_f: which path decided; 0 for any other.
enum av_deciding_path : uint32_t {
    AV_DECIDED_BY_WEB = 1,
    AV_DECIDED_BY_WIFICALLING = 5,
};

// Values of av_verdict::policy_type.
enum av_policy_type : uint32_t {
    AV_POLICY_DEFAULT = 2,
    AV_POLICY_DENY = 3,
    AV_POLICY_RATE_LIMIT = 4,
    AV_POLICY_QOS = 5,
};

inline constexpr uint8_t AV_MARK_DOT1P_AND_DSCP = 2; // of av_qos::mark_pri

// The QoS bytes of a verdict. All ones means "no decision" in each of them.
struct av_qos {
    uint8_t deny;     // 1 deny, 0 allow
    uint8_t mark_pri; // marking field: 0 dot1p (IEEE 802.1Q), 1 dscp (RFC 2474), 2 both
    uint8_t mark_type;
    uint8_t classify; // 1 = QoS classification on
    uint8_t classify_type;
    uint8_t arc_match_src; // 1 = the ARC rule matched on the source UTP
    uint8_t url_decided;   // URL-filtering path: 1 = decided by a block, black or white list
    uint8_t reserved;
    uint16_t ratelimit_up;
    uint16_t ratelimit_down;
    uint32_t arc_match_utp;
};
static_assert(sizeof(av_qos) == 16);

// The command of the module's ioctl channel that takes a verdict; its argument is 0.
inline constexpr int AV_IOCTL_SET_VERDICT = 8;

// av_verdict, 232 bytes:
//
//    0 verdict           132 wfc_fqdn     204 QoS bytes (16)
//    4 flow_key          198 app_id       220 match_info
//   64 default_policy    200 app_cat_id   224 wificalling_f
//   68 app_name                           228 policy_type
struct av_verdict {
    uint32_t verdict; // av_verdict_code
    struct flow_key flow_key;
    uint32_t default_policy; // 1 = the daemon's decision stands
    char app_name[64];       // lower case, NUL-terminated
    char wfc_fqdn[64];       // Wi-Fi calling verdicts only
    uint16_t reserved1;
    uint16_t app_id;
    uint16_t app_cat_id;
    uint16_t reserved2;
    av_qos qos;
    uint32_t match_info;
    uint32_t wificalling_f; // av_deciding_path
    uint32_t policy_type;   // av_policy_type
};
static_assert(sizeof(av_verdict) == 232);
static_assert(offsetof(av_verdict, default_policy) == 64);
static_assert(offsetof(av_verdict, app_name) == 68);
static_assert(offsetof(av_verdict, wfc_fqdn) == 132);
static_assert(offsetof(av_verdict, app_id) == 198);
static_assert(offsetof(av_verdict, qos) == 204);
static_assert(offsetof(av_verdict, match_info) == 220);
static_assert(offsetof(av_verdict, policy_type) == 228);
