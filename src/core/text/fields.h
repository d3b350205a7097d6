// The fields of a line, between separators. What differs between the files is the format: whether
// fields are trimmed, and whether empty fields vanish.
#pragma once

#include <string_view>

struct field_format {
    char separator;
    bool trimmed = false;        // spaces, carriage returns and line feeds go from both ends
    bool empties_vanish = false; // separators in a row separate like one; judged before trimming
};

// Takes a text apart. A separator ends a field, the end of the text ends the last one: "a;;b;"
// holds "a", "" and "b", and an empty text holds none.
class field_splitter {
public:
    field_splitter(std::string_view text, field_format format) : rest_(text), format_(format) {}

    // Takes the next field. Returns false, and leaves `field` empty, when there is none.
    bool next(std::string_view &field);

private:
    std::string_view rest_;
    field_format format_;
};
