#include "jornctl/base/findings.h"

#include <algorithm>
#include <utility>

namespace jornctl {
namespace {

constexpr size_t SHOWN_NAME_MAX = 40;
constexpr const char *NAME_KEYS[] = {"app_name", "name", "pname", "ifname", "fqdn"};

bool is_below(std::string_view path, std::string_view above) {
    return path.size() > above.size() && path.starts_with(above) && path[above.size()] == '/';
}

// Empty for what isn't a record with a name.
std::string name_of(const nlohmann::json &value) {
    for (const char *key : NAME_KEYS) {
        if (!value.is_object() || !value.contains(key) || !value[key].is_string())
            continue;
        if (std::string name = value[key].get<std::string>(); !name.empty())
            return name;
    }
    return {};
}

// The records from the document inwards, as far as the path leads to what is there.
std::string innermost_name(const nlohmann::json &document, const std::string &path) {
    std::string innermost;
    nlohmann::json::json_pointer left(path);
    std::vector<std::string> keys;
    for (; !left.empty(); left.pop_back())
        keys.push_back(left.back());
    nlohmann::json::json_pointer at;
    for (auto key = keys.rbegin(); key != keys.rend(); ++key) {
        at.push_back(*key);
        if (!document.contains(at))
            break;
        if (std::string name = name_of(document[at]); !name.empty())
            innermost = std::move(name);
    }
    return innermost;
}

std::vector<std::string> lines_of(const std::vector<finding> &found) {
    std::vector<std::string> lines;
    for (const finding &each : found) {
        const std::string path = each.path.empty() ? "the document" : each.path;
        lines.push_back(with_name(path, each.name) + ": " + each.reason);
    }
    return lines;
}

} // namespace

bool findings::has_mistake_in(const std::string &path) const {
    return std::ranges::any_of(mistakes_, [&](const finding &each) {
        return each.path == path || is_below(each.path, path);
    });
}

void findings::mistake(const std::string &path, const std::string &reason) {
    const auto is_cause = [&](const finding &each) { return is_below(each.path, path); };
    if (!is_full() && std::ranges::none_of(mistakes_, is_cause))
        mistakes_.push_back({path, reason});
}

void findings::add_warning(finding found) {
    if (warnings_.size() < WARNINGS_MAX && !has_mistake_in(found.path))
        warnings_.push_back(std::move(found));
}

void findings::warning(const std::string &path, const std::string &reason) {
    add_warning({path, reason});
}

void findings::remark(const std::string &path, const std::string &reason) {
    add_warning({path, reason, true});
}

bool findings::has_warnings() const {
    return std::ranges::any_of(warnings_, [](const finding &each) { return !each.of_machine; });
}

void findings::name_records(const nlohmann::json &document) {
    for (std::vector<finding> *found : {&mistakes_, &warnings_}) {
        for (finding &each : *found)
            each.name = innermost_name(document, each.path);
    }
}

std::vector<std::string> findings::mistakes() const {
    std::vector<std::string> lines = lines_of(mistakes_);
    if (is_full())
        lines.push_back("the rest wasn't looked at");
    return lines;
}

std::vector<std::string> findings::warnings() const {
    std::vector<std::string> lines = lines_of(warnings_);
    if (warnings_.size() >= WARNINGS_MAX)
        lines.push_back("there may be more warnings");
    return lines;
}

std::string with_name(const std::string &path, std::string_view name) {
    if (name.empty())
        return path;
    const bool is_long = name.size() > SHOWN_NAME_MAX;
    return path + " (\"" + std::string(name.substr(0, SHOWN_NAME_MAX)) + (is_long ? "..." : "") +
           "\")";
}

} // namespace jornctl
