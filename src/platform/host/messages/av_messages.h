// The messages of the AV channel, for both of its ends: the platform operations of this folder, and
// whatever plays the platform.
//
// The channel is a UNIX socket of type SOCK_SEQPACKET; a datagram is a message: a head, then the
// body that belongs to its op, without gaps. Integers are in host byte order unless a member says
// otherwise, texts are padded with NULs and need not hold one. Records are copied in and out with
// memcpy and never cast: the other end may have sent anything.
#pragma once

#include "platform/records.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>

inline constexpr char AV_SOCKET_PATH[] = "/var/run/av_core.sock";
inline constexpr char AV_SOCKET_VARIABLE[] = "JORN_AV_SOCK"; // names another path

inline const char *av_socket_path() {
    const char *chosen = getenv(AV_SOCKET_VARIABLE);
    return chosen != nullptr && chosen[0] != '\0' ? chosen : AV_SOCKET_PATH;
}

// Room for the verdicts of all 400 frames that a feeder may have outstanding, even when the
// listener is kept from running for a while: the default holds 167 of them.
inline constexpr int AV_SEND_BUFFER = 1 << 20;

enum class av_op : uint32_t {
    // One-way.
    ioctl = 1,
    rflow_set_app = 2,
    rflow_reset_app_policy = 3, // no body
    set_device = 4,
    safesearch = 5,
    log_syslog = 6,
    // Questions.
    rflow_get_roam = 33,
    dnscache_get_name = 34,
    urlfilter_get_category = 35,
    platform_value = 36,
    name_page = 37, // no body
};
inline constexpr av_op AV_LAST_ONE_WAY_OP = av_op::log_syslog;

struct av_message_head {
    av_op op;
    uint32_t seq; // the answer carries its question's
};
static_assert(sizeof(av_message_head) == 8);

// Before the body of an answer, which counts only when `rc` is 0.
struct av_answer_head {
    av_message_head question;
    int32_t rc;
};
static_assert(sizeof(av_answer_head) == 12);

// op 1; `length` bytes of the record follow.
struct av_ioctl_call {
    int32_t command;
    int32_t arg;
    uint32_t length;
};
static_assert(sizeof(av_ioctl_call) == 12);

// op 2, 160 bytes:
//
//    0 flow_key   76 name   140 a4         148 verdict   152 a7
//   60 action               144 category                 156 a8
struct av_app_setting {
    struct flow_key flow_key;
    av_qos action;
    char name[64];
    int32_t a4;
    uint32_t category;
    uint32_t verdict;
    int32_t a7;
    int32_t a8;
};
static_assert(sizeof(av_app_setting) == 160);
static_assert(offsetof(av_app_setting, action) == 60);
static_assert(offsetof(av_app_setting, name) == 76);
static_assert(offsetof(av_app_setting, a4) == 140);
static_assert(offsetof(av_app_setting, verdict) == 148);

// Values of av_device_setting::which.
enum class av_switch : uint32_t { av = 1, url = 2, wfc = 3, tm = 4 };

// op 4.
struct av_device_setting {
    av_switch which;
    int32_t value;
    char ifname[24]; // empty for tm
};
static_assert(sizeof(av_device_setting) == 32);
static_assert(offsetof(av_device_setting, ifname) == 8);

// Values of av_safesearch_setting::action.
enum class av_safesearch_action : uint32_t { remove = 1, add = 2, enable = 3 };

// op 5, 108 bytes:
//
//    0 action    8 utp_id   16 address_be   20 ifname
//    4 mode     12 value                    44 host
struct av_safesearch_setting {
    av_safesearch_action action;
    uint32_t mode; // av_safesearch_mode
    uint32_t utp_id;
    int32_t value;       // of enable: 1 on, 0 off
    uint32_t address_be; // of add
    char ifname[24];
    char host[64];
};
static_assert(sizeof(av_safesearch_setting) == 108);
static_assert(offsetof(av_safesearch_setting, ifname) == 20);
static_assert(offsetof(av_safesearch_setting, host) == 44);

// op 6; the line's text follows, without a NUL.
struct av_syslog_head {
    int32_t level;
};
static_assert(sizeof(av_syslog_head) == 4);

// op 33: a roam_notify, answered by a roam_message without the flows that it doesn't hold. A count
// above ROAM_FLOWS_MAX is the first so many.

// op 34.
struct av_name_question {
    uint32_t address_be;
    uint32_t buffer_size;
};
struct av_name_answer {
    uint32_t words[3];
    char name[256];
};
static_assert(sizeof(av_name_question) == 8);
static_assert(sizeof(av_name_answer) == 268);
static_assert(offsetof(av_name_answer, name) == 12);

// op 37, answered by nothing but one descriptor (SCM_RIGHTS): a memfd of this size with at least
// these seals. Its first word, a uint32_t, is atomic, and is compared for equality alone: while it
// stays the same, an address that op 34 had no name for (return code 0, all words 0) still has
// none.
inline constexpr size_t AV_NAME_PAGE_SIZE = 4096;
inline constexpr int AV_NAME_PAGE_SEALS =
    F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;

// op 35: a urlf_request, answered by a urlf_reply.

// op 36. A return code other than 0: the platform has no such value.
struct av_value_question {
    char key[64];
};
struct av_value_answer {
    char value[128];
};
static_assert(sizeof(av_value_question) == 64);
static_assert(sizeof(av_value_answer) == 128);

// Keys of op 36.
inline constexpr char AV_KEY_MEMORY[] = "mem_support";    // "0" = enough
inline constexpr char AV_KEY_DPI_ENGINE[] = "tm_support"; // "1" = it is there
inline constexpr char AV_KEY_BASE_MAC[] = "base_mac";     // 00:1A:2B:3C:4D:5E
inline constexpr char AV_KEY_FIRMWARE[] = "fw_version";
inline constexpr char AV_KEY_URL_SERVER[] = "webroot_server";
inline constexpr char AV_KEY_VISIBILITY[] = "avc_enable/"; // and the interface's name
