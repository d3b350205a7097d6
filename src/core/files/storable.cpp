#include "core/files/storable.h"

namespace {

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
}

} // namespace

bool is_storable(std::string_view text, std::span<const std::string_view> markers, const char *what,
                 const char *field, log_origin from) {
    text = text.substr(0, text.find('\0'));
    const auto *const control = std::find_if(text.begin(), text.end(), is_control);
    if (control != text.end()) {
        JORN_SAY(JORN_LOG_ERROR, from,
                 "%s is refused: %s holds a control character, 0x%02x, at byte %zu\n", what, field,
                 static_cast<unsigned char>(*control), static_cast<size_t>(control - text.begin()));
        return false;
    }
    for (const std::string_view marker : markers) {
        if (contains_ignoring_case(text, marker)) {
            JORN_SAY(JORN_LOG_ERROR, from, "%s is refused: %s holds \"%.*s\"\n", what, field,
                     static_cast<int>(marker.size()), marker.data());
            return false;
        }
    }
    return true;
}
