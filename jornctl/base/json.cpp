#include "jornctl/base/json.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <vector>

namespace jornctl {
namespace {

using nlohmann::json;

constexpr size_t SHOWN_VALUE_MAX = 60;
// Several times what a document needs: the library recurses where it writes and releases values.
constexpr size_t DEPTH_MAX = 64;
// Many times what a document needs: a value takes far more memory than its text.
constexpr size_t VALUES_MAX = 1'000'000;
constexpr size_t KEY_MAX = 1'000; // each mistake below it holds it

// What the library's message says, without its own name for the exception before it.
std::string reason_of(const json::exception &error) {
    const std::string_view what = error.what(); // "[json.exception.parse_error.101] parse ..."
    return std::string(what.substr(what.find("] ") + 2));
}

// Follows the text from token to token, for a document parsed whole no longer shows the first of
// two equal keys. A pass of its own: the parser's callback costs a walk of the array for each
// element.
class structure_check : public json::json_sax_t {
public:
    explicit structure_check(findings &found) : found_(found) {}

    bool null() override { return enter_value(); }
    bool boolean(bool) override { return enter_value(); }
    bool number_integer(number_integer_t) override { return enter_value(); }
    bool number_unsigned(number_unsigned_t) override { return enter_value(); }
    bool number_float(number_float_t, const string_t &) override { return enter_value(); }
    bool string(string_t &) override { return enter_value(); }
    bool binary(binary_t &) override { return enter_value(); }
    bool start_object(std::size_t) override { return open({.is_array = false}); }
    bool start_array(std::size_t) override { return open({.is_array = true}); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t &name) override {
        if (name.size() > KEY_MAX)
            throw refused("has a key of " + std::to_string(name.size()) + " bytes");
        open_.back().place = name;
        if (!open_.back().keys.insert(name).second && !found_.is_full())
            found_.mistake(path(), "stands twice in its object");
        return true;
    }

    // A number beyond any double comes here as well as bad syntax.
    bool parse_error(std::size_t, const std::string &, const json::exception &error) override {
        throw refused(reason_of(error));
    }

protected:
    // An object or an array begins, or another value has been read.
    virtual void note_value() {}

    // Of the value that is being read.
    std::string path() const {
        json::json_pointer path;
        for (const level &each : open_)
            path.push_back(each.place);
        return path.to_string();
    }

private:
    struct level {
        bool is_array;
        size_t elements = 0;
        std::string place = {}; // the key or the index that is being read
        std::set<std::string> keys = {};
    };

    bool enter_value() {
        if (++values_ > VALUES_MAX)
            throw refused("has more than " + std::to_string(VALUES_MAX) + " values");
        if (!open_.empty() && open_.back().is_array)
            open_.back().place = std::to_string(open_.back().elements++);
        note_value();
        return true;
    }

    bool open(level &&entered) {
        enter_value();
        if (open_.size() == DEPTH_MAX)
            throw refused("is nested deeper than " + std::to_string(DEPTH_MAX) + " levels");
        open_.push_back(std::move(entered));
        return true;
    }

    bool close() {
        open_.pop_back();
        return true;
    }

    findings &found_;
    std::vector<level> open_;
    size_t values_ = 0;
};

// How far the parser has read.
struct reading_place {
    size_t line_feeds = 0;
    char last = '\0';

    // Behind a number one more byte has been read.
    size_t line() const { return 1 + line_feeds - (last == '\n' ? 1 : 0); }
};

class followed_text {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    followed_text(const char *at, reading_place &place) : at_(at), place_(&place) {}

    const char &operator*() const { return *at_; }
    followed_text &operator++() {
        place_->last = *at_++;
        place_->line_feeds += place_->last == '\n' ? 1 : 0;
        return *this;
    }
    bool operator==(const followed_text &other) const { return at_ == other.at_; }

private:
    const char *at_;
    reading_place *place_;
};

class line_finder : public structure_check {
public:
    line_finder(findings &found, const reading_place &place)
        : structure_check(found), place_(place) {}

    std::map<std::string, size_t> take_lines() { return std::move(lines_); }

private:
    void note_value() override { lines_.emplace(path(), place_.line()); }

    const reading_place &place_;
    std::map<std::string, size_t> lines_;
};

// To the library a NUL is the end of the text, whatever stands behind it.
void refuse_nul(std::string_view text) {
    const size_t nul = text.find('\0');
    if (nul == std::string_view::npos)
        return;
    const std::string_view before = text.substr(0, nul);
    const size_t line_begin = before.rfind('\n') + 1; // 0 behind npos
    throw refused("line " + std::to_string(1 + std::count(before.begin(), before.end(), '\n')) +
                  ", column " + std::to_string(nul - line_begin + 1) + ": holds a NUL byte");
}

} // namespace

json parse_json(std::string_view text, findings &found) {
    refuse_nul(text);
    structure_check check(found);
    json::sax_parse(text, &check, json::input_format_t::json, true, true);
    return json::parse(text, nullptr, true, true);
}

std::map<std::string, size_t> lines_of_values(std::string_view text) {
    refuse_nul(text);
    findings ignored;
    reading_place place;
    line_finder finder(ignored, place);
    json::sax_parse(followed_text(text.data(), place),
                    followed_text(text.data() + text.size(), place), &finder,
                    json::input_format_t::json, true, true);
    return finder.take_lines();
}

std::string to_text(const ordered_json &value) {
    constexpr int INDENT = 4;
    return value.dump(INDENT, ' ', false, ordered_json::error_handler_t::replace) + '\n';
}

std::string to_line(const ordered_json &value) {
    return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

void node::refuse(const std::string &reason) const {
    throw unreadable(path.to_string(), reason);
}

std::string node::described() const {
    const std::string text = value.dump();
    return value.is_primitive() && text.size() <= SHOWN_VALUE_MAX
               ? text
               : std::string("a value of type ") + value.type_name();
}

} // namespace jornctl
