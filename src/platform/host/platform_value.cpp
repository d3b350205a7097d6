#include "platform/host/platform_value.h"

#include "platform/host/av_channel.h"

#include <algorithm>
#include <cstring>

namespace {

// What start-up may wait for the keys that it asks for each interface, all in all: a slow platform
// would keep the daemon from its packets for half a minute.
av_clock::duration start_up_time = std::chrono::seconds(2);

bool is_asked_for_each_interface(std::string_view key) {
    return key == AV_KEY_MEMORY || key.starts_with(AV_KEY_VISIBILITY);
}

bool ask_platform(std::string_view key, platform_value &value, av_clock::duration wait) {
    av_value_question question = {};
    if (key.size() >= sizeof question.key)
        return false;
    memcpy(question.key, key.data(), key.size());

    const av_bytes parts[] = {av_part(question)};
    int32_t rc = -1;
    if (!av_ask(av_op::platform_value, parts, rc, std::as_writable_bytes(std::span(value)), wait) ||
        rc != 0)
        return false;
    value[sizeof value - 1] = '\0';
    return true;
}

} // namespace

bool read_platform_value(std::string_view key, platform_value &value) {
    if (!is_asked_for_each_interface(key))
        return ask_platform(key, value, AV_ANSWER_TIME);
    if (start_up_time <= av_clock::duration::zero())
        return false;
    const av_clock::time_point asked = av_clock::now();
    const bool known = ask_platform(key, value, std::min(AV_ANSWER_TIME, start_up_time));
    start_up_time -= av_clock::now() - asked;
    return known;
}
