// The service library's operations on a plain Linux machine: each call becomes one message.
#include "platform/psms.h"

#include "platform/host/av_channel.h"
#include "platform/host/nameless.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

// Copies a text into a field of zeros. Returns whether it fits with its NUL.
template <size_t N>
bool fill(char (&field)[N], std::string_view text) {
    if (text.size() >= N)
        return false;
    memcpy(field, text.data(), text.size());
    return true;
}

int set_switch(av_switch which, int value, std::string_view ifname) {
    av_device_setting setting = {which, value, {}};
    if (!fill(setting.ifname, ifname))
        return -1;
    const av_bytes parts[] = {av_part(setting)};
    return av_send(av_op::set_device, parts);
}

// A UTP has no interface.
int set_safesearch(av_safesearch_setting setting, const char *ifname, std::string_view host) {
    if (!fill(setting.ifname, ifname != nullptr ? ifname : "") || !fill(setting.host, host))
        return -1;
    const av_bytes parts[] = {av_part(setting)};
    return av_send(av_op::safesearch, parts);
}

nameless_addresses nameless;

// A platform that is silent or absent knows no name; that is not an error.
int32_t ask_for_name(const av_name_question &question, av_name_answer &answer) {
    nameless.prepare();
    const av_bytes parts[] = {av_part(question)};
    int32_t rc = 0;
    if (!av_ask(av_op::dnscache_get_name, parts, rc,
                std::as_writable_bytes(std::span(&answer, 1)))) {
        answer = {};
        return 0;
    }
    const bool has_none = std::ranges::count(answer.words, 0u) == std::ssize(answer.words);
    if (rc == 0 && has_none && question.buffer_size > 1) // else no name has room
        nameless.remember(question.address_be);
    return rc;
}

} // namespace

int psms_wdl_ioctl(int command, int arg, unsigned int length, void *record) {
    const av_ioctl_call call = {command, arg, length};
    const av_bytes parts[] = {av_part(call), {static_cast<const std::byte *>(record), length}};
    return av_send(av_op::ioctl, parts);
}

int psms_rflow_set_app(const struct flow_key *key, const av_qos *action, const char *name, int a4,
                       uint16_t category, uint32_t verdict, int a7, int a8) {
    av_app_setting setting = {};
    setting.flow_key = *key;
    setting.action = *action;
    if (!fill(setting.name, name))
        return -1;
    setting.a4 = a4;
    setting.category = category;
    setting.verdict = verdict;
    setting.a7 = a7;
    setting.a8 = a8;
    const av_bytes parts[] = {av_part(setting)};
    return av_send(av_op::rflow_set_app, parts);
}

int psms_rflow_reset_app_policy() {
    return av_send(av_op::rflow_reset_app_policy, {});
}

int psms_av_set_dev_av(const char *ifname, int enable) {
    return set_switch(av_switch::av, enable, ifname);
}

int psms_av_set_dev_url(const char *ifname, int enable) {
    return set_switch(av_switch::url, enable, ifname);
}

int psms_av_set_dev_wfc(const char *ifname, int enable) {
    return set_switch(av_switch::wfc, enable, ifname);
}

int psms_av_set_tm_en(int enable) {
    return set_switch(av_switch::tm, enable, "");
}

int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    av_name_answer answer = {};
    const int32_t rc = nameless.has(address_be) ? 0 : ask_for_name({address_be, size}, answer);
    if (rc != 0)
        return rc;
    *word1 = answer.words[0];
    *word2 = answer.words[1];
    *word3 = answer.words[2];
    if (size != 0) {
        const size_t length = std::min<size_t>(strnlen(answer.name, sizeof answer.name), size - 1);
        memcpy(name, answer.name, length);
        name[length] = '\0';
    }
    return 0;
}

int psms_rflow_get_roam(const roam_notify *notify, roam_flow *flows, int *count) {
    const av_bytes parts[] = {av_part(*notify)};
    roam_message answer = {};
    int32_t rc = 0;
    size_t taken = 0;
    if (!av_ask_some(av_op::rflow_get_roam, parts, rc,
                     std::as_writable_bytes(std::span(&answer, 1)), taken))
        return -1;
    if (rc != 0)
        return rc;
    const size_t flows_taken = std::min<size_t>(answer.count, ROAM_FLOWS_MAX);
    if (taken < offsetof(roam_message, flows) + flows_taken * sizeof(roam_flow))
        return -1;
    memcpy(flows, answer.flows, flows_taken * sizeof(roam_flow));
    *count = static_cast<int>(flows_taken);
    return 0;
}

int psms_dnsspoof_del_dn_ip_map_for_safesearch(const char *ifname, const char *host, int mode,
                                               uint32_t utp_id) {
    av_safesearch_setting setting = {};
    setting.action = av_safesearch_action::remove;
    setting.mode = static_cast<uint32_t>(mode);
    setting.utp_id = utp_id;
    return set_safesearch(setting, ifname, host);
}

int psms_dnsspoof_add_dn_ip_map_for_safesearch(const char *ifname, const char *host,
                                               const uint32_t *address_be, int, int, int, int mode,
                                               uint32_t utp_id) {
    av_safesearch_setting setting = {};
    setting.action = av_safesearch_action::add;
    setting.mode = static_cast<uint32_t>(mode);
    setting.utp_id = utp_id;
    setting.address_be = *address_be;
    return set_safesearch(setting, ifname, host);
}

int psms_dnsspoof_set_enable_for_safesearch(const char *ifname, int enable) {
    av_safesearch_setting setting = {};
    setting.action = av_safesearch_action::enable;
    setting.mode = AV_SAFESEARCH_INTERFACE;
    setting.value = enable;
    return set_safesearch(setting, ifname, "");
}
