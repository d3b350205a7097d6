#include "avcore/messages.h"

#include "core/text/text.h"

#include <cstring>

namespace avcore {
namespace {

constexpr uint32_t OP_IOCTL = 1;
constexpr uint32_t OP_POLICY_RESET = 3;
constexpr uint32_t OP_SWITCH = 4;
constexpr uint32_t OP_SYSLOG = 6;
constexpr uint32_t LAST_ONE_WAY_OP = 6;
constexpr int32_t IOCTL_SET_VERDICT = 8;

template <typename Record>
bool read_record(byte_span bytes, size_t offset, Record &record) {
    if (offset > bytes.size() || sizeof record > bytes.size() - offset)
        return false;
    memcpy(&record, bytes.data() + offset, sizeof record);
    return true;
}

std::optional<channel_message> parse_ioctl(byte_span body) {
    struct {
        int32_t command;
        int32_t arg;
        uint32_t length;
    } call;
    if (!read_record(body, 0, call) || call.length != body.size() - sizeof call)
        return std::nullopt;
    if (call.command != IOCTL_SET_VERDICT || call.arg != 0)
        return ignored_message{};
    av_verdict verdict;
    if (call.length != sizeof verdict || !read_record(body, sizeof call, verdict))
        return std::nullopt;
    return verdict;
}

std::optional<channel_message> parse_switch(byte_span body) {
    struct {
        uint32_t which;
        int32_t value;
        char if_name[24];
    } record;
    if (body.size() != sizeof record || !read_record(body, 0, record) ||
        record.which < switch_setting::AV || record.which > switch_setting::TM)
        return std::nullopt;
    return switch_setting{record.which, record.value, std::string(field_text(record.if_name))};
}

std::optional<channel_message> parse_syslog(byte_span body) {
    syslog_line line = {};
    if (!read_record(body, 0, line.level))
        return std::nullopt;
    const byte_span text = body.subspan(sizeof line.level);
    line.text.assign(reinterpret_cast<const char *>(text.data()), text.size());
    return line;
}

} // namespace

std::optional<channel_message> parse_message(byte_span datagram) {
    struct {
        uint32_t op;
        uint32_t seq;
    } header;
    if (!read_record(datagram, 0, header))
        return std::nullopt;
    const byte_span body = datagram.subspan(sizeof header);
    switch (header.op) {
    case OP_IOCTL:
        return parse_ioctl(body);
    case OP_POLICY_RESET:
        return body.empty() ? std::optional<channel_message>(policy_reset{}) : std::nullopt;
    case OP_SWITCH:
        return parse_switch(body);
    case OP_SYSLOG:
        return parse_syslog(body);
    default:
        break;
    }
    // Who asks something unknown is told so rather than left waiting.
    if (header.op > LAST_ONE_WAY_OP)
        return question{header.op, header.seq, body};
    return ignored_message{};
}

std::vector<std::byte> make_answer(const question &asked, int32_t rc, byte_span body) {
    const struct {
        uint32_t op;
        uint32_t seq;
        int32_t rc;
    } header = {asked.op, asked.seq, rc};
    std::vector<std::byte> answer(sizeof header + (rc == 0 ? body.size() : 0));
    memcpy(answer.data(), &header, sizeof header);
    if (rc == 0 && !body.empty())
        memcpy(answer.data() + sizeof header, body.data(), body.size());
    return answer;
}

} // namespace avcore
