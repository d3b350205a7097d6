// What a command brings and a file will keep is checked before it changes anything: a control
// character, or a marker of the file, would tear other records apart when the file is read back.
// Loading a file asks nobody here: what could be read can be stored.
#pragma once

#include "core/base/log.h"
#include "core/text/line_format.h"

#include <span>
#include <string_view>

inline constexpr size_t STORED_FIELD_SIZE = 4096; // holds the longest field, a list, with its NUL

// Whether a text may be stored. It is looked at up to its NUL. A refusal is reported under `from`
// as of the `field` of `what`, with the place in the text.
bool is_storable(std::string_view text, std::span<const std::string_view> markers, const char *what,
                 const char *field, log_origin from);

// The same for a record: every field is looked at as its line would have it.
template <typename Record>
bool is_storable(const Record &record, const line_format<Record> &format,
                 std::span<const std::string_view> markers, const char *what, log_origin from) {
    for (const line_field<Record> &field : format.fields) {
        char text[STORED_FIELD_SIZE];
        size_t length = 0;
        text_appender to(text, &length, sizeof text);
        field.write(to, record);
        if (!is_storable({text, length}, markers, what, field.name, from))
            return false;
    }
    return true;
}
