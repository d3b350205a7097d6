#include "jornctl/base/printable.h"

namespace jornctl {
namespace {

// How many bytes the control character at the text's begin has, 0 where there is none.
size_t control_length(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x20 || byte(0) == 0x7F)
        return 1;
    const bool is_c1 = text.size() > 1 && byte(0) == 0xC2 && byte(1) >= 0x80 && byte(1) < 0xA0;
    return is_c1 ? 2 : 0;
}

} // namespace

std::string printable(std::string_view text, std::string_view kept) {
    std::string shown;
    while (!text.empty()) {
        const size_t control = control_length(text);
        const bool is_shown = control == 0 || kept.find(text.front()) != std::string_view::npos;
        shown += is_shown ? text.front() : '?';
        text.remove_prefix(is_shown ? 1 : control);
    }
    return shown;
}

} // namespace jornctl
