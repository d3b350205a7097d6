#include "jornctl/json.h"

#include "jornctl/failure.h"

#include <set>
#include <vector>

namespace jornctl {
namespace {

using nlohmann::json;

constexpr size_t SHOWN_VALUE_MAX = 60;
// Several times what a document needs: the library recurses where it writes and releases values.
constexpr size_t DEPTH_MAX = 64;

// Follows the parser through objects and arrays, for it drops the first of two equal keys in
// silence.
class duplicate_key_check {
public:
    void operator()(json::parse_event_t event, const json &parsed) {
        using kind = json::parse_event_t;
        if (event == kind::object_end || event == kind::array_end) {
            open_.pop_back();
            return;
        }
        if (event == kind::key) {
            enter_key(parsed.get<std::string>());
            return;
        }
        if (!open_.empty() && open_.back().is_array)
            open_.back().place = std::to_string(open_.back().elements++);
        if (event == kind::value)
            return;
        if (open_.size() == DEPTH_MAX)
            throw refused("is nested deeper than " + std::to_string(DEPTH_MAX) + " levels");
        open_.push_back({.is_array = event == kind::array_start});
    }

private:
    struct level {
        bool is_array;
        size_t elements = 0;
        std::string place = {}; // the key or the index that is being read
        std::set<std::string> keys = {};
    };

    void enter_key(const std::string &name) {
        open_.back().place = name;
        if (open_.back().keys.insert(name).second)
            return;
        json::json_pointer path;
        for (const level &each : open_)
            path.push_back(each.place);
        throw refused(path.to_string() + ": stands twice in its object");
    }

    std::vector<level> open_;
};

} // namespace

json parse_json(std::string_view text) {
    duplicate_key_check check;
    const auto watch = [&check](int, json::parse_event_t event, json &parsed) {
        check(event, parsed);
        return true;
    };
    try {
        return json::parse(text, watch, true, true);
    } catch (const json::exception &error) { // a number beyond any double isn't a parse_error
        const std::string_view what = error.what(); // "[json.exception.parse_error.101] parse ..."
        throw refused(std::string(what.substr(what.find("] ") + 2)));
    }
}

void node::refuse(const std::string &reason) const {
    throw refused((path.empty() ? "the document" : path.to_string()) + ": " + reason);
}

std::string node::described() const {
    const std::string text = value.dump();
    return value.is_primitive() && text.size() <= SHOWN_VALUE_MAX
               ? text
               : std::string("a value of type ") + value.type_name();
}

} // namespace jornctl
