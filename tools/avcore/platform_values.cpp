#include "avcore/platform_values.h"

#include "core/text/text.h"

namespace avcore {

std::string asked_key(const question &asked) {
    char key[64];
    if (asked.body.size() < sizeof key)
        return {};
    memcpy(key, asked.body.data(), sizeof key);
    return std::string(field_text(key));
}

std::vector<std::byte> answer_platform_value(const config &settings, const question &asked) {
    const auto found = settings.platform_values.find(asked_key(asked));
    if (found == settings.platform_values.end())
        return make_answer(asked, -1);
    char value[128];
    copy_text(value, found->second);
    return make_answer(asked, 0, std::as_bytes(std::span(value)));
}

} // namespace avcore
