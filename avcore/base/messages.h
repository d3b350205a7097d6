// The AV channel's messages: from the bytes of one datagram to a checked message, and back to the
// bytes of an answer. Whoever connects may send anything; what isn't exactly a message of its kind
// is none.
#pragma once

#include "platform/host/messages/av_messages.h"
#include "platform/records.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace avcore {

using byte_span = std::span<const std::byte>;

// The verdicts of all flows are outdated.
struct policy_reset {};

// The daemon switches one of the module's functions on or off.
struct switch_setting {
    av_switch which;
    int32_t value;
    std::string if_name; // empty for tm
};

struct syslog_line {
    int32_t level;
    std::string text;
};

// A one-way message that avcore takes and does nothing with.
struct ignored_message {};

struct question {
    av_message_head head;
    byte_span body; // unchecked; lives as long as the datagram
};

using channel_message = std::variant<av_verdict, av_app_setting, policy_reset, switch_setting,
                                     av_safesearch_setting, syslog_line, ignored_message, question>;

std::optional<channel_message> parse_message(byte_span datagram);

// What goes back: nothing where it is empty.
struct channel_answer {
    std::vector<std::byte> bytes;
    int descriptor = -1; // that goes with them; -1: none
};

// The body is sent only with return code 0.
std::vector<std::byte> make_answer(const question &asked, int32_t rc, byte_span body = {});

} // namespace avcore
