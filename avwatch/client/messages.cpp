#include "avwatch/client/messages.h"
#include "shared/json_text.h"

#include <algorithm>
#include <limits>

namespace avwatch {
namespace {

using nlohmann::json;
using content = decltype(message::what);

size_t nesting_of(std::string_view line) {
    size_t depth = 0;
    size_t deepest = 0;
    bool in_text = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (in_text && c == '\\')
            ++i; // the next one ends no text
        else if (c == '"')
            in_text = !in_text;
        else if (!in_text && (c == '{' || c == '['))
            deepest = std::max(deepest, ++depth);
        else if (!in_text && (c == '}' || c == ']') && depth > 0)
            --depth;
    }
    return deepest;
}

template <typename Record>
std::optional<content> content_of(std::optional<Record> record) {
    return record ? std::optional<content>(std::move(*record)) : std::nullopt;
}

std::optional<content> end_of(const json &said) {
    return said == true ? std::optional<content>(answer_end()) : std::nullopt;
}

std::optional<content> error_of(const json &said) {
    return said.is_string() ? std::optional<content>(answer_error{said.get<std::string>()})
                            : std::nullopt;
}

std::optional<content> listed_of(const json &said) {
    return said == true ? std::optional<content>(listing_end()) : std::nullopt;
}

std::optional<content> lost_of(const json &said) {
    const auto *count = said.get_ptr<const uint64_t *>();
    return count != nullptr ? std::optional<content>(lost_events{*count}) : std::nullopt;
}

// By the member that tells what a message is.
constexpr struct {
    const char *key;
    std::optional<content> (*read)(const json &said);
} KINDS[] = {
    {"flow", [](const json &said) { return content_of(flow_of(said)); }},
    {"brief", [](const json &said) { return content_of(brief_of(said)); }},
    {"count", [](const json &said) { return content_of(count_of(said)); }},
    {"sum", [](const json &said) { return content_of(sum_of(said)); }},
    {"event", [](const json &said) { return content_of(event_of(said)); }},
    {"client", [](const json &said) { return content_of(client_of(said)); }},
    {"profile", [](const json &said) { return content_of(profile_of(said)); }},
    {"counts", [](const json &said) { return content_of(counts_of(said)); }},
    {"gate", [](const json &said) { return std::optional<content>(gate_state{said}); }},
    {"done", end_of},
    {"error", error_of},
    {"listed", listed_of},
    {"lost", lost_of},
};

} // namespace

std::optional<json> parse_line(std::string_view line) {
    if (nesting_of(line) > NESTING_MAX)
        return std::nullopt;
    json parsed = read_json(line);
    return parsed.is_discarded() ? std::nullopt : std::optional(std::move(parsed));
}

std::optional<message> message_of(const json &object) {
    if (!object.is_object())
        return std::nullopt;
    message read;
    if (const auto id = object.find("id"); id != object.end()) {
        const auto *number = id->get_ptr<const uint64_t *>();
        if (number == nullptr || *number > std::numeric_limits<uint32_t>::max())
            return std::nullopt;
        read.id = static_cast<uint32_t>(*number);
    }
    for (const auto &kind : KINDS) {
        const auto said = object.find(kind.key);
        if (said == object.end())
            continue;
        std::optional<content> what = kind.read(*said);
        if (!what)
            return std::nullopt;
        read.what = std::move(*what);
        return read;
    }
    return std::nullopt;
}

} // namespace avwatch
