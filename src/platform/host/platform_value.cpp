#include "platform/host/platform_value.h"

#include "platform/host/av_channel.h"

#include <cstring>

bool read_platform_value(std::string_view key, char (&value)[PLATFORM_VALUE_SIZE]) {
    char padded_key[PLATFORM_KEY_SIZE] = {};
    if (key.size() >= sizeof padded_key)
        return false;
    memcpy(padded_key, key.data(), key.size());

    const av_bytes parts[] = {av_part(padded_key)};
    int32_t rc = -1;
    if (!av_ask(av_op::platform_value, parts, rc, std::as_writable_bytes(std::span(value))) ||
        rc != 0)
        return false;
    value[sizeof value - 1] = '\0';
    return true;
}
