#include "core/base/reply.h"

#include "core/text/text.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t PIECE_SIZE = 2048;

char reply_text[REPLY_SIZE];

} // namespace

line_buffer::line_buffer(char *text, size_t size, when_full rule)
    : text_(text), size_(size), rule_(rule) {
    text_[0] = '\0';
}

void line_buffer::append(std::string_view piece) {
    if (full_)
        return;
    if (piece.size() < size_ - length_) {
        memcpy(text_ + length_, piece.data(), piece.size());
        length_ += piece.size();
    } else if (rule_ == when_full::end_at_line) {
        full_ = true;
        const size_t last_line_end = text().rfind('\n');
        length_ = last_line_end == std::string_view::npos ? 0 : last_line_end + 1;
    }
    text_[length_] = '\0';
}

void line_buffer::format(const char *format, ...) {
    char piece[PIECE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(piece, sizeof piece, format, arguments);
    va_end(arguments);
    append(piece);
}

void line_buffer::cell(const listing_cell &which, std::string_view value) {
    char piece[PIECE_SIZE];
    size_t length = 0;
    text_appender to(piece, &length, sizeof piece);
    for (const std::string_view part : {which.before, which.label, value, which.behind})
        to.append(part);
    append({piece, length});
}

void line_buffer::cell(const listing_cell &which, int64_t value) {
    char digits[24];
    cell(which, {digits, std::to_chars(digits, digits + sizeof digits, value).ptr});
}

line_buffer start_reply() {
    return {reply_text, sizeof reply_text};
}

void send_reply(int fd, const line_buffer &reply) {
    [[maybe_unused]] const ssize_t written = write(fd, reply.text().data(), reply.text().size());
}
