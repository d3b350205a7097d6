#include "avwatch/why/parts.h"

#include "core/text/text.h"

#include <algorithm>

namespace avwatch {
namespace {

using jornctl::document;

std::string item_path(const char *table, const char *list, const part &place) {
    return std::string(table) + std::to_string(place.record) + list + std::to_string(place.item);
}

template <size_t Size>
void erase_pattern(web_pattern (&list)[Size], uint8_t &count, size_t item) {
    for (size_t i = item; i + 1 < Size; ++i)
        copy_text(list[i], list[i + 1]);
    copy_text(list[Size - 1], "");
    --count;
}

// Slots of rules and categories may be free, so the others keep their places.
void take_out(document &from, const part &gone) {
    switch (gone.kind) {
    case part_kind::RULE:
        from.policies->at(gone.record).rules[gone.item] = {};
        break;
    case part_kind::WHITE_PATTERN: {
        web_policy_wire &policy = from.web_policies->at(gone.record);
        erase_pattern(policy.whitelist, policy.num_whitelist, gone.item);
        break;
    }
    case part_kind::BLACK_PATTERN: {
        web_policy_wire &policy = from.web_policies->at(gone.record);
        erase_pattern(policy.blacklist, policy.num_blacklist, gone.item);
        break;
    }
    case part_kind::CATEGORY:
        from.web_policies->at(gone.record).categories[gone.item] = 0;
        break;
    case part_kind::CARRIER: {
        const std::string name(field_text(from.carriers->at(gone.record).pname));
        std::erase_if(*from.carriers, [&](const wificalling_policy_wire &each) {
            return field_text(each.pname) == name;
        });
        break;
    }
    case part_kind::APPLICATION:
        from.applications->erase(from.applications->begin() +
                                 static_cast<std::ptrdiff_t>(gone.record));
        break;
    case part_kind::PORT_LINE: // of no document
        break;
    }
}

} // namespace

std::string path_of(const part &place) {
    switch (place.kind) {
    case part_kind::RULE:
        return item_path("/policies/", "/rules/", place);
    case part_kind::WHITE_PATTERN:
        return item_path("/web_policies/", "/whitelist/", place);
    case part_kind::BLACK_PATTERN:
        return item_path("/web_policies/", "/blacklist/", place);
    case part_kind::CATEGORY:
        return item_path("/web_policies/", "/categories/", place);
    case part_kind::CARRIER:
        return "/carriers/" + std::to_string(place.record);
    case part_kind::APPLICATION:
        return "/applications/" + std::to_string(place.record);
    case part_kind::PORT_LINE:
        break;
    }
    return {};
}

bool has_table_of(part_kind kind, const document &said) {
    switch (kind) {
    case part_kind::RULE:
        return said.policies.has_value();
    case part_kind::WHITE_PATTERN:
    case part_kind::BLACK_PATTERN:
    case part_kind::CATEGORY:
        return said.web_policies.has_value();
    case part_kind::CARRIER:
        return said.carriers.has_value();
    case part_kind::APPLICATION:
        return said.applications.has_value();
    case part_kind::PORT_LINE:
        break;
    }
    return false;
}

// The last ones first: the others are still where they were.
document without(const document &whole, const part_set &gone) {
    document left = whole;
    for (auto each = gone.rbegin(); each != gone.rend(); ++each) {
        if (has_table_of(each->kind, whole))
            take_out(left, *each);
    }
    return left;
}

std::string without_lines(const std::string &text, const part_set &gone) {
    std::string left;
    size_t number = 0;
    for (size_t begin = 0; begin < text.size(); ++number) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        if (!gone.contains({part_kind::PORT_LINE, number}))
            left.append(text, begin, end - begin);
        left += '\n';
        begin = end + 1;
    }
    return left;
}

part place_in_whole(part left, const part_set &gone) {
    const bool is_pattern =
        left.kind == part_kind::WHITE_PATTERN || left.kind == part_kind::BLACK_PATTERN;
    for (const part &each : gone) {
        if (each.kind != left.kind)
            continue;
        if (is_pattern && each.record == left.record && each.item <= left.item)
            ++left.item;
        if (left.kind == part_kind::APPLICATION && each.record <= left.record)
            ++left.record;
    }
    return left;
}

} // namespace avwatch
