#include "fake_platform.h"

#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"
#include "platform/wdlm.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

fake_platform platform;

static int note(std::string call, int result = 0) {
    platform.calls.push_back(std::move(call));
    return result;
}

int psm_jor_mem_support() {
    return note("psm_jor_mem_support()", platform.mem_support);
}

int psm_mem_support_tm() {
    return note("psm_mem_support_tm()", platform.tm_support);
}

int psm_bsp_getMACBase(char *text) {
    strcpy(text, platform.base_mac.c_str());
    return 0;
}

int psm_log_syslog(int level, const char *line) {
    platform.calls.push_back("psm_log_syslog(" + std::to_string(level) + ")");
    platform.syslog_lines.emplace_back(line);
    return 0;
}

// The transaction's handle is the fake itself, so that a reading outside of one is seen.
int psm_beginXact(psm_xact **xact) {
    platform.calls.emplace_back("psm_beginXact()");
    if (platform.begin_xact_result == 0)
        *xact = reinterpret_cast<psm_xact *>(&platform);
    return platform.begin_xact_result;
}

int psm_cancelXact(psm_xact **xact) {
    platform.calls.emplace_back("psm_cancelXact()");
    *xact = nullptr;
    return 0;
}

int psm_wlan_pgetAvcEn(psm_xact *xact, const char *ifname, int *enable) {
    platform.calls.push_back(std::string("psm_wlan_pgetAvcEn(") + ifname + ")");
    if (xact == nullptr)
        return -1;
    const auto found = platform.avc_enable.find(ifname);
    *enable = found != platform.avc_enable.end() ? found->second : 0;
    return 0;
}

int psm_webroot_server_pgetName(psm_xact *, char *, size_t) {
    return -1;
}

// The agent knows every domain and no category.
int psm_urlfilter_get_category(const void *, void *) {
    return 0;
}

int psm_sys_get_fw_version(char *text, size_t size) {
    platform.calls.emplace_back("psm_sys_get_fw_version()");
    snprintf(text, size, "%s", platform.fw_version.c_str());
    return 0;
}

int psms_wdl_ioctl(int command, int arg, unsigned int length, void *record) {
    ++platform.ioctl_count;
    if (!platform.keeps_records)
        return platform.ioctl_result;
    platform.calls.push_back("psms_wdl_ioctl(" + std::to_string(command) + ", " +
                             std::to_string(arg) + ", " + std::to_string(length) + ")");
    const auto *bytes = static_cast<const uint8_t *>(record);
    platform.ioctl_records.emplace_back(bytes, bytes + length);
    return platform.ioctl_result;
}

int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    char text[INET_ADDRSTRLEN];
    if (platform.keeps_records)
        platform.calls.push_back("psms_dnscache_get_dn_by_ip(" +
                                 std::string(inet_ntop(AF_INET, &address_be, text, sizeof text)) +
                                 ", " + std::to_string(size) + ")");
    const auto found = platform.dns.find(address_be);
    const fake_dns_answer answer =
        found != platform.dns.end() ? found->second : fake_dns_answer{"", 0, {0, 0, 0}};
    // As a platform may that doesn't think of the NUL.
    memset(name, 0, size);
    memcpy(name, answer.name.data(), std::min<size_t>(answer.name.size(), size));
    *word1 = answer.words[0];
    *word2 = answer.words[1];
    *word3 = answer.words[2];
    return answer.result;
}

int psms_av_set_tm_en(int enable) {
    return note("psms_av_set_tm_en(" + std::to_string(enable) + ")");
}

int psms_rflow_reset_app_policy() {
    return note("psms_rflow_reset_app_policy()");
}

int psms_av_set_dev_av(const char *ifname, int enable) {
    return note(std::string("psms_av_set_dev_av(") + ifname + ", " + std::to_string(enable) + ")");
}

int psms_av_set_dev_url(const char *, int) {
    return 0;
}

int psms_rflow_set_app(const void *, const void *, const char *, int, uint16_t, uint32_t, int,
                       int) {
    return 0;
}

int psms_dnsspoof_del_dn_ip_map_for_safesearch(const char *, const char *, int, uint32_t) {
    return 0;
}

int psms_dnsspoof_add_dn_ip_map_for_safesearch(const char *, const char *, const uint32_t *, int,
                                               int, int, int, uint32_t) {
    return 0;
}

int psms_dnsspoof_set_enable_for_safesearch(const char *, int) {
    return 0;
}

int psms_av_set_dev_wfc(const char *ifname, int enable) {
    return note(std::string("psms_av_set_dev_wfc(") + ifname + ", " + std::to_string(enable) + ")");
}

void crashdump_init(const char *process_name) {
    platform.calls.push_back(std::string("crashdump_init(") + process_name + ")");
}

void crashdump_out_init(const char *path) {
    platform.calls.push_back(std::string("crashdump_out_init(") + path + ")");
}

// The message bus: nobody is there, and nothing is asked of it without a start-up.
int psms_rflow_get_roam(const void *, void *, int *) {
    return -1;
}
int wdlm_init(int) {
    return 0;
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
    return -1;
}
int __wdlm_add_peer(const char *, int, const char *, const char *) {
    return -1;
}
int wdlm_pub(wdlm_bus *, wdlm_label *, const void *, size_t) {
    return -1;
}
int wdlm_fd(wdlm_bus *) {
    return -1;
}
int wdlm_receive(wdlm_bus *) {
    return -1;
}
