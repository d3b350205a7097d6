// What is wrong with a document, or may not be meant: collected, so that its author sees all of it
// at once.
//
// A finding names its place by the JSON path and, where a record of the path has one, by that
// record's name: "/policies/0/rules/3 ("youtube"): REASON". What only follows from another mistake
// isn't one: nothing is said about a record of which a part couldn't be read.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace jornctl {

struct finding {
    std::string path; // empty: the document
    std::string reason;
    bool of_machine = false;
    std::string name = {}; // of the innermost record of the path that has one
};

class findings {
public:
    void mistake(const std::string &path, const std::string &reason);
    void warning(const std::string &path, const std::string &reason);
    // A warning that says as much of the machine as of the document, which may be meant for
    // another.
    void remark(const std::string &path, const std::string &reason);

    bool has_mistakes() const { return !mistakes_.empty(); }
    bool has_warnings() const;                    // remarks aside
    void forget_warnings() { warnings_.clear(); } // they were told
    // There are so many mistakes that nobody needs to look for more.
    bool is_full() const { return mistakes_.size() >= MISTAKES_MAX; }
    // At the path or below it.
    bool has_mistake_in(const std::string &path) const;

    // Looks the records' names up for what was found so far.
    void name_records(const nlohmann::json &document);

    // A line each. Where there are too many, the last one says so.
    std::vector<std::string> mistakes() const;
    std::vector<std::string> warnings() const;

private:
    void add_warning(finding found);

    static constexpr size_t MISTAKES_MAX = 100;
    static constexpr size_t WARNINGS_MAX = 1'000;

    std::vector<finding> mistakes_;
    std::vector<finding> warnings_;
};

// A path with a record's name behind it, as findings show it.
std::string with_name(const std::string &path, std::string_view name);

} // namespace jornctl
