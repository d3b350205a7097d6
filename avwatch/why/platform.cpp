#include "avwatch/why/platform.h"

#include "core/text/text.h"
#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"
#include "platform/wdlm.h"

#include <algorithm>
#include <cstring>

namespace avwatch {

played_platform &platform_in_play() {
    static played_platform instance;
    return instance;
}

} // namespace avwatch

using avwatch::platform_in_play;

namespace {

constexpr int DONE = 0;
constexpr int NOT_THERE = -1;

} // namespace

void crashdump_init(const char *) {}

void crashdump_out_init(const char *) {}

// psm.h

int psm_jor_mem_support() {
    return DONE;
}

int psm_mem_support_tm() {
    return DONE;
}

int psm_bsp_getMACBase(char *text) {
    *text = '\0';
    return NOT_THERE;
}

int psm_beginXact(psm_xact **) {
    return NOT_THERE;
}

int psm_cancelXact(psm_xact **) {
    return DONE;
}

int psm_wlan_pgetAvcEn(psm_xact *, const char *, int *) {
    return NOT_THERE;
}

int psm_webroot_server_pgetName(psm_xact *, char *, size_t) {
    return NOT_THERE;
}

int psm_urlfilter_get_category(const urlf_request *request, urlf_reply *reply) {
    const std::string_view domain = field_text(request->domain);
    const avwatch::platform_answers &answers = *platform_in_play().answers;
    const std::optional<urlf_answer> answer =
        answers.categories ? answers.categories(domain) : std::nullopt;
    if (!answer) {
        platform_in_play().unanswered = domain;
        return NOT_THERE;
    }
    *reply = {};
    reply->answer = *answer;
    return DONE;
}

int psm_sys_get_fw_version(char *, size_t) {
    return NOT_THERE;
}

int psm_log_syslog(int, const char *) {
    return DONE;
}

// psms.h

int psms_wdl_ioctl(int, int, unsigned int length, void *record) {
    av_verdict verdict = {};
    memcpy(&verdict, record, std::min<size_t>(length, sizeof verdict));
    platform_in_play().verdict = verdict;
    return DONE;
}

int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    const auto &names = platform_in_play().answers->names;
    const auto found = names.find(address_be);
    const bool is_known = found != names.end();
    const std::string_view text = is_known ? std::string_view(found->second) : std::string_view();
    const size_t length = std::min<size_t>(text.size(), size - 1);
    text.copy(name, length);
    name[length] = '\0';
    *word1 = *word2 = *word3 = is_known ? 1 : 0;
    return DONE;
}

int psms_rflow_get_roam(const roam_notify *, roam_flow *, int *count) {
    *count = 0;
    return DONE;
}

int psms_av_set_tm_en(int) {
    return DONE;
}

int psms_rflow_reset_app_policy() {
    return DONE;
}

int psms_av_set_dev_av(const char *, int) {
    return DONE;
}

int psms_av_set_dev_url(const char *, int) {
    return DONE;
}

int psms_av_set_dev_wfc(const char *, int) {
    return DONE;
}

int psms_rflow_set_app(const flow_key *, const av_qos *, const char *, int, uint16_t, uint32_t, int,
                       int) {
    return DONE;
}

int psms_dnsspoof_del_dn_ip_map_for_safesearch(const char *, const char *, int, uint32_t) {
    return DONE;
}

int psms_dnsspoof_add_dn_ip_map_for_safesearch(const char *, const char *, const uint32_t *, int,
                                               int, int, int, uint32_t) {
    return DONE;
}

int psms_dnsspoof_set_enable_for_safesearch(const char *, int) {
    return DONE;
}

// wdlm.h: there is no bus.

int wdlm_init(int) {
    return NOT_THERE;
}

void wdlm_cleanup() {}

wdlm_bus *wdlm_open(int, const char *) {
    return nullptr;
}

void wdlm_close(wdlm_bus *) {}

wdlm_label *wdlm_create_slabel(int, const char *, const char *, int) {
    return nullptr;
}

void wdlm_destroy_slabel(wdlm_label *) {}

wdlm_label *wdlm_create_plabel(int, const char *, const char *, int) {
    return nullptr;
}

void wdlm_destroy_plabel(wdlm_label *) {}

int wdlm_sub(wdlm_bus *, wdlm_label *, wdlm_callback, void *, int) {
    return NOT_THERE;
}

int __wdlm_add_peer(const char *, int, const char *, const char *) {
    return DONE;
}

int wdlm_pub(wdlm_bus *, wdlm_label *, const void *, size_t) {
    return NOT_THERE;
}

int wdlm_fd(wdlm_bus *) {
    return NOT_THERE;
}

int wdlm_receive(wdlm_bus *) {
    return NOT_THERE;
}
