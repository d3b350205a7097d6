#include "core/text/fields.h"

#include "core/text/text.h"

#include <algorithm>

bool field_splitter::next(std::string_view &field) {
    if (format_.empties_vanish)
        rest_.remove_prefix(std::min(rest_.find_first_not_of(format_.separator), rest_.size()));
    field = {};
    if (rest_.empty())
        return false;
    field = rest_.substr(0, rest_.find(format_.separator));
    rest_.remove_prefix(std::min(field.size() + 1, rest_.size()));
    if (format_.trimmed)
        field = trimmed(field);
    return true;
}
