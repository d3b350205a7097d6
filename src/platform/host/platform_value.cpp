#include "platform/host/platform_value.h"

#include "platform/host/av_channel.h"

#include <cstring>

bool read_platform_value(std::string_view key, platform_value &value) {
    av_value_question question = {};
    if (key.size() >= sizeof question.key)
        return false;
    memcpy(question.key, key.data(), key.size());

    const av_bytes parts[] = {av_part(question)};
    int32_t rc = -1;
    if (!av_ask(av_op::platform_value, parts, rc, std::as_writable_bytes(std::span(value))) ||
        rc != 0)
        return false;
    value[sizeof value - 1] = '\0';
    return true;
}
