// The service library's operations on a plain Linux machine: each call becomes one message.
#include "platform/psms.h"

#include "platform/host/av_channel.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

int set_switch(av_switch which, int value, std::string_view ifname) {
    av_device_setting setting = {which, value, {}};
    if (ifname.size() >= sizeof setting.ifname)
        return -1;
    memcpy(setting.ifname, ifname.data(), ifname.size());
    const av_bytes parts[] = {av_part(setting)};
    return av_send(av_op::set_device, parts);
}

} // namespace

int psms_wdl_ioctl(int command, int arg, unsigned int length, void *record) {
    const av_ioctl_call call = {command, arg, length};
    const av_bytes parts[] = {av_part(call), {static_cast<const std::byte *>(record), length}};
    return av_send(av_op::ioctl, parts);
}

int psms_rflow_reset_app_policy() {
    return av_send(av_op::rflow_reset_app_policy, {});
}

int psms_av_set_dev_av(const char *ifname, int enable) {
    return set_switch(av_switch::av, enable, ifname);
}

int psms_av_set_dev_wfc(const char *ifname, int enable) {
    return set_switch(av_switch::wfc, enable, ifname);
}

int psms_av_set_tm_en(int enable) {
    return set_switch(av_switch::tm, enable, "");
}

int psms_dnscache_get_dn_by_ip(uint32_t address_be, char *name, unsigned int size, uint32_t *word1,
                               uint32_t *word2, uint32_t *word3) {
    const av_name_question question = {address_be, size};
    const av_bytes parts[] = {av_part(question)};
    av_name_answer answer = {};
    int32_t rc = 0;
    // A platform that is silent or absent knows no name; that is not an error.
    if (!av_ask(av_op::dnscache_get_name, parts, rc,
                std::as_writable_bytes(std::span(&answer, 1)))) {
        answer = {};
        rc = 0;
    }
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
