#include "avcore/channel/platform_values.h"

#include "core/text/text.h"

namespace avcore {

std::string asked_key(const question &asked) {
    av_value_question record;
    if (asked.body.size() < sizeof record)
        return {};
    memcpy(&record, asked.body.data(), sizeof record);
    return std::string(field_text(record.key));
}

std::vector<std::byte> answer_platform_value(const config &settings, const question &asked) {
    const auto found = settings.platform_values.find(asked_key(asked));
    if (found == settings.platform_values.end())
        return make_answer(asked, -1);
    av_value_answer reply;
    copy_text(reply.value, found->second);
    return make_answer(asked, 0, std::as_bytes(std::span(&reply, 1)));
}

} // namespace avcore
