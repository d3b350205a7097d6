#include "support/fake_platform.h"

#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"
#include "platform/wdlm.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

fake_platform platform;

namespace {

// Arguments that aren't texts or numbers.
struct bytes {
    const void *at;
    size_t size;
};
struct address {
    uint32_t be;
};

std::string text_of(const char *text) {
    return text != nullptr ? text : "none";
}

std::string text_of(int64_t number) {
    return std::to_string(number);
}

std::string text_of(address shown) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &shown.be, text, sizeof text);
}

// Every byte is read, so that a sanitizer sees what the daemon hands over.
std::string text_of(bytes shown) {
    const auto *from = static_cast<const uint8_t *>(shown.at);
    platform.records.emplace_back(from, from + shown.size);
    return std::to_string(shown.size) + " bytes";
}

// Notes the call. Returns what the operation returns.
template <typename... Arguments>
int called(const char *operation, const Arguments &...arguments) {
    if (platform.keeps_calls) {
        std::string list;
        for (const std::string &text : std::initializer_list<std::string>{text_of(arguments)...})
            list += (list.empty() ? "" : ", ") + text;
        platform.calls.push_back(std::string(operation) + '(' + list + ')');
    }
    if (platform.results.empty())
        return 0;
    const auto found = platform.results.find(operation);
    return found != platform.results.end() ? found->second : 0;
}

// As a platform may that doesn't think of the NUL.
void put_name(char *name, size_t size, std::string_view text) {
    const size_t length = std::min(text.size(), size);
    memcpy(name, text.data(), length);
    if (length < size)
        name[length] = '\0';
}

fake_dns_answer dns_answer_for(uint32_t address_be) {
    if (platform.dns_answer != nullptr)
        return platform.dns_answer(address_be);
    const auto found = platform.dns.find(address_be);
    return found != platform.dns.end() ? found->second : fake_dns_answer{"", 0, {0, 0, 0}};
}

} // namespace

void crashdump_init(const char *process_name) {
    called(__func__, process_name);
}

void crashdump_out_init(const char *path) {
    called(__func__, path);
}

// psm.h

int psm_jor_mem_support() {
    return called(__func__);
}

int psm_mem_support_tm() {
    return called(__func__);
}

int psm_bsp_getMACBase(char *text) {
    strcpy(text, platform.base_mac.c_str());
    return called(__func__);
}

// The transaction's handle is the fake itself, so that a reading outside of one is seen.
int psm_beginXact(psm_xact **xact) {
    const int result = called(__func__);
    if (result == 0)
        *xact = reinterpret_cast<psm_xact *>(&platform);
    return result;
}

int psm_cancelXact(psm_xact **xact) {
    *xact = nullptr;
    return called(__func__);
}

int psm_wlan_pgetAvcEn(psm_xact *xact, const char *ifname, int *enable) {
    const int result = called(__func__, ifname);
    if (xact == nullptr)
        return -1;
    const auto found = platform.avc_enable.find(ifname);
    *enable = found != platform.avc_enable.end() ? found->second : 0;
    return result;
}

int psm_webroot_server_pgetName(psm_xact *xact, char *text, size_t size) {
    const int result = called(__func__, static_cast<int64_t>(size));
    if (xact == nullptr || platform.url_server.empty())
        return -1;
    snprintf(text, size, "%s", platform.url_server.c_str());
    return result;
}

int psm_urlfilter_get_category(const urlf_request *request, urlf_reply *reply) {
    const int result = called(__func__, bytes{request, sizeof(urlf_request)});
    if (platform.category_answer != nullptr)
        return platform.category_answer(request, reply);
    *reply = {};
    return result;
}

const char g_cat_map[84][66] = {" Uncategorized", " Real Estate"};

int psm_sys_get_fw_version(char *text, size_t size) {
    snprintf(text, size, "%s", platform.fw_version.c_str());
    return called(__func__);
}

int psm_log_syslog(int level, const char *line) {
    return called(__func__, level, line);
}

// psms.h

int psms_wdl_ioctl(int command, int arg, unsigned int length, void *record) {
    if (length != sizeof(av_verdict))
        abort();
    ++platform.verdicts;
    memcpy(&platform.last_verdict, record, sizeof platform.last_verdict);
    return called(__func__, command, arg, bytes{record, length});
}

int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    called(__func__, address{address_be}, size);
    const fake_dns_answer answer = dns_answer_for(address_be);
    put_name(name, size, answer.name);
    *word1 = answer.words[0];
    *word2 = answer.words[1];
    *word3 = answer.words[2];
    return answer.result;
}

int psms_av_set_tm_en(int enable) {
    return called(__func__, enable);
}

int psms_rflow_reset_app_policy() {
    return called(__func__);
}

int psms_av_set_dev_av(const char *ifname, int enable) {
    return called(__func__, ifname, enable);
}

int psms_av_set_dev_url(const char *ifname, int enable) {
    return called(__func__, ifname, enable);
}

int psms_av_set_dev_wfc(const char *ifname, int enable) {
    return called(__func__, ifname, enable);
}

int psms_rflow_set_app(const flow_key *key, const av_qos *action, const char *name, int,
                       uint16_t category, uint32_t verdict, int, int) {
    return called(__func__, bytes{key, sizeof *key}, bytes{action, sizeof *action}, name, category,
                  verdict);
}

int psms_dnsspoof_del_dn_ip_map_for_safesearch(const char *ifname, const char *host, int mode,
                                               uint32_t utp_id) {
    return called(__func__, ifname, host, mode, utp_id);
}

int psms_dnsspoof_add_dn_ip_map_for_safesearch(const char *ifname, const char *host,
                                               const uint32_t *address_be, int, int, int, int mode,
                                               uint32_t utp_id) {
    return called(__func__, ifname, host, address{*address_be}, mode, utp_id);
}

int psms_dnsspoof_set_enable_for_safesearch(const char *ifname, int enable) {
    return called(__func__, ifname, enable);
}

int psms_rflow_get_roam(const roam_notify *, roam_flow *, int *count) {
    *count = 0;
    return called(__func__);
}

// wdlm.h: a bus without anybody on it.

int wdlm_init(int arg) {
    return called(__func__, arg);
}

void wdlm_cleanup() {
    called(__func__);
}

wdlm_bus *wdlm_open(int, const char *client) {
    called(__func__, client);
    return nullptr;
}

void wdlm_close(wdlm_bus *) {
    called(__func__);
}

wdlm_label *wdlm_create_slabel(int, const char *sender, const char *topic, int) {
    called(__func__, sender, topic);
    return nullptr;
}

void wdlm_destroy_slabel(wdlm_label *) {
    called(__func__);
}

wdlm_label *wdlm_create_plabel(int, const char *peer, const char *topic, int) {
    called(__func__, peer, topic);
    return nullptr;
}

void wdlm_destroy_plabel(wdlm_label *) {
    called(__func__);
}

int wdlm_sub(wdlm_bus *, wdlm_label *, wdlm_callback, void *, int) {
    return called(__func__);
}

int __wdlm_add_peer(const char *, int, const char *peer, const char *address) {
    return called(__func__, peer, address);
}

int wdlm_pub(wdlm_bus *, wdlm_label *, const void *, size_t) {
    return called(__func__);
}

int wdlm_fd(wdlm_bus *) {
    return -1;
}

int wdlm_receive(wdlm_bus *) {
    return called(__func__);
}
