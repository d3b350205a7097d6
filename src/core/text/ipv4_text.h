// IPv4 addresses as dotted text, made without printf: the packet path names flows after them.
#pragma once

#include <cstdint>

inline constexpr unsigned IPV4_TEXT_MAX = 15; // characters

// Writes the address, which is in network byte order, at `to` and returns the end of the text. Puts
// no NUL behind it, but may use one byte more than the text needs.
char *write_ipv4(char *to, uint32_t address_be);

// The text with its NUL, for a log or a listing. Lives as long as the statement that shows it.
class ipv4_text {
public:
    explicit ipv4_text(uint32_t address_be) { *write_ipv4(text_, address_be) = '\0'; }
    const char *c_str() const { return text_; }

private:
    char text_[IPV4_TEXT_MAX + 1];
};
