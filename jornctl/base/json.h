// JSON with addresses: every value knows its JSON path, so that a refusal can say where.
//
// Comments are allowed. A key that stands twice in one object is a mistake, for JSON readers differ
// in which of the two they take.
#pragma once

#include "jornctl/base/failure.h"
#include "jornctl/base/findings.h"

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace jornctl {

using nlohmann::ordered_json; // what is written: its keys stay as they came

// Throws refused for bad syntax, with line and column.
nlohmann::json parse_json(std::string_view text, findings &found);

// The lines, from 1, on which the values of a document begin, by their paths. Throws refused, as
// parse_json does.
std::map<std::string, size_t> lines_of_values(std::string_view text);

// As it is printed, with a line feed at its end.
std::string to_text(const ordered_json &value);
// The same on one line, without the line feed.
std::string to_line(const ordered_json &value);

// Ends the reading of one value; attempt makes a mistake of the document out of it.
struct unreadable : refused {
    std::string path;
    unreadable(std::string where, const std::string &reason)
        : refused(reason), path(std::move(where)) {}
};

struct node {
    const nlohmann::json &value;
    nlohmann::json::json_pointer path;
    findings &found;

    bool has(const char *key) const { return value.contains(key); }
    bool has_mistake_in(const char *key) const {
        return found.has_mistake_in((path / key).to_string());
    }
    node at(const char *key) const { return {value.at(key), path / key, found}; }
    node at(size_t index) const { return {value.at(index), path / index, found}; }

    // Throws unreadable.
    [[noreturn]] void refuse(const std::string &reason) const;
    // Notes a mistake, and the reading goes on.
    void blame(const std::string &reason) const { found.mistake(path.to_string(), reason); }
    // Reads a part. What is refused in it is noted, and the reading goes on behind it.
    template <typename Read>
    void attempt(Read read) const {
        if (found.is_full())
            return;
        try {
            read();
        } catch (const unreadable &part) {
            found.mistake(part.path, part.what());
        }
    }
    // What it is, in a refusal: the value where it is short, else its kind.
    std::string described() const;
};

} // namespace jornctl
