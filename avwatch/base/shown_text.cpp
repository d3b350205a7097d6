#include "avwatch/base/shown_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

namespace avwatch {
namespace {

struct range {
    char32_t first, last;
};

// In their order. Of the format characters those of scripts (Arabic number signs, Brahmi joiners)
// count, too.
constexpr range UNSEEN[] = {
    {0x00, 0x1F},       {0x7F, 0x9F},        {0xAD, 0xAD},       {0x34F, 0x34F},
    {0x600, 0x605},     {0x61C, 0x61C},      {0x6DD, 0x6DD},     {0x70F, 0x70F},
    {0x890, 0x891},     {0x8E2, 0x8E2},      {0x115F, 0x1160},   {0x17B4, 0x17B5},
    {0x180B, 0x180F},   {0x200B, 0x200F},    {0x2028, 0x202E},   {0x2060, 0x206F},
    {0x3164, 0x3164},   {0xD800, 0xF8FF},    {0xFDD0, 0xFDEF},   {0xFE00, 0xFE0F},
    {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},    {0xFFF0, 0xFFFB},   {0xFFFE, 0xFFFF},
    {0x110BD, 0x110BD}, {0x110CD, 0x110CD},  {0x13430, 0x1345F}, {0x1BCA0, 0x1BCA3},
    {0x1D173, 0x1D17A}, {0xE0000, 0x10FFFF},
};
constexpr range RIGHT_TO_LEFT[] = {
    {0x590, 0x8FF}, {0xFB1D, 0xFDFF}, {0xFE70, 0xFEFE}, {0x10800, 0x10FFF}, {0x1E800, 0x1EFFF},
};
constexpr std::string_view LEFT_TO_RIGHT_MARK = "\u200E";

bool is_in(std::span<const range> ranges, char32_t character) {
    const auto found = std::ranges::lower_bound(ranges, character, {}, &range::last);
    return found != ranges.end() && character >= found->first;
}

// The character that the text begins with, and its length: 0 where the bytes aren't UTF-8's
// shortest form of one.
struct decoded {
    char32_t character = 0;
    size_t length = 0;
};

decoded decode(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80)
        return {lead, 1};
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    constexpr std::array<char32_t, 5> least = {0, 0, 0x80, 0x800, 0x10000};
    if (lead < 0xC0 || lead >= 0xF8 || text.size() < length)
        return {};
    char32_t character = lead & (0x7Fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return {};
        character = character << 6 | (byte(i) & 0x3Fu);
    }
    return character < least[length] ? decoded() : decoded{character, length};
}

} // namespace

std::string shown_text(std::string_view text) {
    std::string shown;
    bool is_marked = false;
    while (!text.empty()) {
        const decoded next = decode(text);
        const bool is_shown = next.length != 0 && !is_in(UNSEEN, next.character);
        is_marked |= is_shown && is_in(RIGHT_TO_LEFT, next.character);
        if (is_shown)
            shown += text.substr(0, next.length);
        else
            shown += '?';
        text.remove_prefix(std::max<size_t>(next.length, 1));
    }
    if (is_marked)
        shown.insert(0, LEFT_TO_RIGHT_MARK).append(LEFT_TO_RIGHT_MARK);
    return shown;
}

size_t columns_of(std::string_view shown) {
    size_t columns = 0;
    for (size_t i = 0; i < shown.size(); ++i) {
        if (shown.substr(i).starts_with(LEFT_TO_RIGHT_MARK))
            i += LEFT_TO_RIGHT_MARK.size() - 1;
        else if ((static_cast<unsigned char>(shown[i]) & 0xC0) != 0x80)
            ++columns;
    }
    return columns;
}

} // namespace avwatch
