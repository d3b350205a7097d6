// The service library's operations on a plain Linux machine: each call becomes one message.
#include "platform/psms.h"

#include "host/av_channel.h"

#include <cstring>

namespace {

enum class av_switch : uint32_t {
    av = 1,
    tm = 4,
};

int send_switch(av_switch which, int value, const char *ifname) {
    const int32_t value_word = value;
    char padded_ifname[24] = {};
    const size_t length = strlen(ifname);
    if (length >= sizeof padded_ifname)
        return -1;
    memcpy(padded_ifname, ifname, length);
    const av_bytes parts[] = {av_part(which), av_part(value_word), av_part(padded_ifname)};
    return av_send(av_op::set_switch, parts);
}

} // namespace

int psms_wdl_ioctl(int command, int arg, unsigned int length, void *record) {
    const int32_t command_word = command;
    const int32_t arg_word = arg;
    const uint32_t length_word = length;
    const av_bytes parts[] = {av_part(command_word),
                              av_part(arg_word),
                              av_part(length_word),
                              {static_cast<const std::byte *>(record), length}};
    return av_send(av_op::ioctl, parts);
}

int psms_rflow_reset_app_policy() {
    return av_send(av_op::rflow_reset_app_policy, {});
}

int psms_av_set_dev_av(const char *ifname, int enable) {
    return send_switch(av_switch::av, enable, ifname);
}

int psms_av_set_tm_en(int enable) {
    return send_switch(av_switch::tm, enable, "");
}
