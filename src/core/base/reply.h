// The text that a show command sends back: built piece by piece in one buffer, sent in one write.
//
// A show is one function that fills a line_buffer; `answer` has it filled and sends it.
#pragma once

#include "core/text/listing.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

// What becomes of a bounded text when a piece doesn't fit.
enum class when_full : uint8_t {
    end_at_line, // it ends at its last whole line and takes no more
    leave_out,   // the piece is left out, smaller ones may follow
};

// A bounded text, built piece by piece.
class line_buffer {
public:
    // `text` holds `size` bytes, at least one, and is emptied.
    line_buffer(char *text, size_t size, when_full rule = when_full::end_at_line);

    void append(std::string_view piece);

    // A piece formatted as by printf, cut to 2,048 bytes less its NUL.
    [[gnu::format(printf, 2, 3)]] void format(const char *format, ...);

    // A cell with its value, in one piece of less than 2,048 bytes.
    void cell(const listing_cell &which, std::string_view value);
    void cell(const listing_cell &which, const char *value = "") {
        cell(which, std::string_view(value));
    }
    void cell(const listing_cell &which, int64_t value);

    std::string_view text() const { return {text_, length_}; }
    bool has_ended() const { return full_; } // and takes no more

private:
    char *text_;
    size_t size_;
    size_t length_ = 0;
    when_full rule_;
    bool full_ = false;
};

// The one reply under construction: there is one command at a time. Emptied by each call.
line_buffer start_reply();

// Writes a reply to the connection in one write. A peer that went away or doesn't read loses it.
void send_reply(int fd, const line_buffer &reply);

// Answers on a connection with what `fill` writes, given the arguments behind it. Returns 0, as
// every show does.
template <typename... Parameters, typename... Arguments>
int answer(int fd, void (*fill)(line_buffer &, Parameters...), const Arguments &...arguments) {
    line_buffer reply = start_reply();
    fill(reply, arguments...);
    send_reply(fd, reply);
    return 0;
}
