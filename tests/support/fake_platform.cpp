#include "support/fake_platform.h"

#include "platform/crashdump.h"
#include "platform/psm.h"
#include "platform/psms.h"
#include "platform/wdlm.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

fake_platform platform;

namespace {

volatile unsigned looked_at;

void look_at(std::span<const std::byte> handed) {
    for (const std::byte each : handed)
        looked_at = looked_at ^ std::to_integer<unsigned>(each);
}

void look_at(const char *text) {
    if (text != nullptr)
        look_at(std::as_bytes(std::span(text, strlen(text))));
}

template <typename Record>
std::span<const std::byte> bytes_of(const Record *record) {
    return std::as_bytes(std::span(record, 1));
}

std::string mapping_of(const char *ifname, const char *host, uint32_t utp_id) {
    return std::to_string(utp_id) + ' ' + (ifname != nullptr ? ifname : "") + ' ' + host;
}

// What an operation returns that is handed these texts and records.
template <typename... Handed>
int done(const Handed &...handed) {
    ++platform.calls;
    if (platform.is_thorough)
        (look_at(handed), ...);
    return 0;
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
    done(process_name);
}

void crashdump_out_init(const char *path) {
    done(path);
}

// psm.h

int psm_jor_mem_support() {
    return done();
}

int psm_mem_support_tm() {
    return done();
}

int psm_bsp_getMACBase(char *text) {
    strcpy(text, platform.base_mac.c_str());
    return done();
}

// The transaction's handle is the fake itself, so that a reading outside of one is seen.
int psm_beginXact(psm_xact **xact) {
    *xact = reinterpret_cast<psm_xact *>(&platform);
    return done();
}

int psm_cancelXact(psm_xact **xact) {
    *xact = nullptr;
    return done();
}

int psm_wlan_pgetAvcEn(psm_xact *xact, const char *ifname, int *enable) {
    if (xact == nullptr)
        return -1;
    const auto found = platform.avc_enable.find(ifname);
    *enable = found != platform.avc_enable.end() ? found->second : 0;
    return done(ifname);
}

int psm_webroot_server_pgetName(psm_xact *, char *, size_t) {
    return -1; // none is configured
}

int psm_urlfilter_get_category(const urlf_request *request, urlf_reply *reply) {
    const int result = done(bytes_of(request));
    if (platform.category_answer != nullptr)
        return platform.category_answer(request, reply);
    *reply = {};
    return result;
}

const char g_cat_map[84][66] = {" Uncategorized", " Real Estate"};

int psm_sys_get_fw_version(char *text, size_t size) {
    snprintf(text, size, "1.0");
    return done();
}

int psm_log_syslog(int, const char *line) {
    return done(line);
}

// psms.h

int psms_wdl_ioctl(int, int, unsigned int length, void *record) {
    if (length != sizeof(av_verdict))
        abort();
    ++platform.verdicts;
    memcpy(&platform.last_verdict, record, sizeof platform.last_verdict);
    if (platform.is_thorough)
        memcpy(&platform.last_record, record, sizeof platform.last_record);
    return done(std::span(static_cast<const std::byte *>(record), length));
}

int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    done();
    const fake_dns_answer answer = dns_answer_for(address_be);
    put_name(name, size, answer.name);
    *word1 = answer.words[0];
    *word2 = answer.words[1];
    *word3 = answer.words[2];
    return answer.result;
}

int psms_av_set_tm_en(int) {
    return done();
}

int psms_rflow_reset_app_policy() {
    return done();
}

int psms_av_set_dev_av(const char *ifname, int) {
    return done(ifname);
}

int psms_av_set_dev_url(const char *ifname, int) {
    return done(ifname);
}

int psms_av_set_dev_wfc(const char *ifname, int) {
    return done(ifname);
}

int psms_rflow_set_app(const flow_key *key, const av_qos *action, const char *name, int, uint16_t,
                       uint32_t, int, int) {
    return done(bytes_of(key), bytes_of(action), name);
}

int psms_dnsspoof_del_dn_ip_map_for_safesearch(const char *ifname, const char *host, int,
                                               uint32_t utp_id) {
    platform.safe_search.erase(mapping_of(ifname, host, utp_id));
    return done(ifname, host);
}

int psms_dnsspoof_add_dn_ip_map_for_safesearch(const char *ifname, const char *host,
                                               const uint32_t *address_be, int, int, int, int,
                                               uint32_t utp_id) {
    platform.safe_search[mapping_of(ifname, host, utp_id)] = *address_be;
    return done(ifname, host, bytes_of(address_be));
}

int psms_dnsspoof_set_enable_for_safesearch(const char *ifname, int) {
    return done(ifname);
}

int psms_rflow_get_roam(const roam_notify *, roam_flow *, int *count) {
    *count = 0;
    return done();
}

// wdlm.h: a bus without anybody on it.

int wdlm_init(int) {
    return done();
}

void wdlm_cleanup() {
    done();
}

wdlm_bus *wdlm_open(int, const char *client) {
    done(client);
    return nullptr;
}

void wdlm_close(wdlm_bus *) {
    done();
}

wdlm_label *wdlm_create_slabel(int, const char *sender, const char *topic, int) {
    done(sender, topic);
    return nullptr;
}

void wdlm_destroy_slabel(wdlm_label *) {
    done();
}

wdlm_label *wdlm_create_plabel(int, const char *peer, const char *topic, int) {
    done(peer, topic);
    return nullptr;
}

void wdlm_destroy_plabel(wdlm_label *) {
    done();
}

int wdlm_sub(wdlm_bus *, wdlm_label *, wdlm_callback, void *, int) {
    return done();
}

int __wdlm_add_peer(const char *, int, const char *peer, const char *address) {
    return done(peer, address);
}

int wdlm_pub(wdlm_bus *, wdlm_label *, const void *, size_t) {
    return done();
}

int wdlm_fd(wdlm_bus *) {
    return -1;
}

int wdlm_receive(wdlm_bus *) {
    return done();
}
