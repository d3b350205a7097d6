#include "avcore/base/messages.h"

#include "core/text/text.h"

#include <cstring>

namespace avcore {
namespace {

template <typename Record>
bool read_record(byte_span bytes, size_t offset, Record &record) {
    if (offset > bytes.size() || sizeof record > bytes.size() - offset)
        return false;
    memcpy(&record, bytes.data() + offset, sizeof record);
    return true;
}

std::optional<channel_message> parse_ioctl(byte_span body) {
    av_ioctl_call call;
    if (!read_record(body, 0, call) || call.length != body.size() - sizeof call)
        return std::nullopt;
    if (call.command != AV_IOCTL_SET_VERDICT || call.arg != 0)
        return ignored_message{};
    av_verdict verdict;
    if (call.length != sizeof verdict || !read_record(body, sizeof call, verdict))
        return std::nullopt;
    return verdict;
}

std::optional<channel_message> parse_app_setting(byte_span body) {
    av_app_setting record;
    if (body.size() != sizeof record || !read_record(body, 0, record))
        return std::nullopt;
    return record;
}

std::optional<channel_message> parse_safesearch(byte_span body) {
    av_safesearch_setting record;
    if (body.size() != sizeof record || !read_record(body, 0, record) ||
        record.action < av_safesearch_action::remove ||
        record.action > av_safesearch_action::enable)
        return std::nullopt;
    return record;
}

std::optional<channel_message> parse_switch(byte_span body) {
    av_device_setting record;
    if (body.size() != sizeof record || !read_record(body, 0, record) ||
        record.which < av_switch::av || record.which > av_switch::tm)
        return std::nullopt;
    return switch_setting{record.which, record.value, std::string(field_text(record.ifname))};
}

std::optional<channel_message> parse_syslog(byte_span body) {
    av_syslog_head head;
    if (!read_record(body, 0, head))
        return std::nullopt;
    const byte_span text = body.subspan(sizeof head);
    return syslog_line{head.level, {reinterpret_cast<const char *>(text.data()), text.size()}};
}

} // namespace

std::optional<channel_message> parse_message(byte_span datagram) {
    av_message_head head;
    if (!read_record(datagram, 0, head))
        return std::nullopt;
    const byte_span body = datagram.subspan(sizeof head);
    switch (head.op) {
    case av_op::ioctl:
        return parse_ioctl(body);
    case av_op::rflow_set_app:
        return parse_app_setting(body);
    case av_op::rflow_reset_app_policy:
        return body.empty() ? std::optional<channel_message>(policy_reset{}) : std::nullopt;
    case av_op::set_device:
        return parse_switch(body);
    case av_op::safesearch:
        return parse_safesearch(body);
    case av_op::log_syslog:
        return parse_syslog(body);
    default:
        break;
    }
    // Who asks something unknown is told so rather than left waiting.
    if (head.op > AV_LAST_ONE_WAY_OP)
        return question{head, body};
    return ignored_message{};
}

std::vector<std::byte> make_answer(const question &asked, int32_t rc, byte_span body) {
    const av_answer_head head = {asked.head, rc};
    std::vector<std::byte> answer(sizeof head + (rc == 0 ? body.size() : 0));
    memcpy(answer.data(), &head, sizeof head);
    if (rc == 0 && !body.empty())
        memcpy(answer.data() + sizeof head, body.data(), body.size());
    return answer;
}

} // namespace avcore
