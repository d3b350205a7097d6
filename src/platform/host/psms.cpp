// The service library's operations on a plain Linux machine: each call becomes one message.
#include "platform/psms.h"

#include "host/av_channel.h"

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
