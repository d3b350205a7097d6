// JSON with addresses: every value knows its JSON path, so that a refusal can say where.
//
// Comments are allowed. A key that stands twice in one object is refused, for JSON readers differ
// in which of the two they take.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace jornctl {

using nlohmann::ordered_json; // what is written: its keys stay as they came

// Throws refused, with line and column for bad syntax.
nlohmann::json parse_json(std::string_view text);

// As it is printed, with a line feed at its end.
std::string to_text(const ordered_json &value);

struct node {
    const nlohmann::json &value;
    nlohmann::json::json_pointer path;

    bool has(const char *key) const { return value.contains(key); }
    node at(const char *key) const { return {value.at(key), path / key}; }
    node at(size_t index) const { return {value.at(index), path / index}; }

    // Throws refused with "PATH: REASON".
    [[noreturn]] void refuse(const std::string &reason) const;
    // What it is, in a refusal: the value where it is short, else its kind.
    std::string described() const;
};

} // namespace jornctl
