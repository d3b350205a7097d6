#include "avcore/watch/questions.h"

#include "avcore/base/host_text.h"
#include "shared/json_text.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace avcore {
namespace {

using nlohmann::json;

constexpr int64_t SHORTEST_MS = 200;
constexpr int64_t LONGEST_MS = 60'000;
constexpr uint64_t LONGEST_AGO_MS = 1'000'000'000'000;

struct mistake : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Null where the member isn't there.
const json *member(const json &object, const char *name) {
    const auto found = object.find(name);
    return found != object.end() ? &*found : nullptr;
}

std::string text_in(const json &object, const char *name) {
    const json *value = member(object, name);
    if (value == nullptr)
        return "";
    if (!value->is_string())
        throw mistake(std::string(name) + " isn't a text");
    return value->get<std::string>();
}

std::optional<uint64_t> number_in(const json &object, const char *name, uint64_t least,
                                  uint64_t most) {
    const json *value = member(object, name);
    if (value == nullptr)
        return std::nullopt;
    if (!value->is_number_unsigned() || value->get<uint64_t>() < least ||
        value->get<uint64_t>() > most)
        throw mistake(std::string(name) + " isn't a whole number from " + std::to_string(least) +
                      " to " + std::to_string(most));
    return value->get<uint64_t>();
}

flow_filter filter_in(const json &object) {
    flow_filter filter;
    if (const std::string client = text_in(object, "client"); !client.empty()) {
        filter.client_mac = mac_in(client);
        filter.client = ip_address::parse(client);
        if (!filter.client_mac && !filter.client)
            throw mistake("client is neither a MAC address nor an IP address");
    }
    filter.name = lower_case(text_in(object, "name"));
    filter.application = lower_case(text_in(object, "application"));
    filter.verdict = text_in(object, "verdict");
    if (const auto since_us = number_in(object, "since_us", 0, INT64_MAX))
        filter.since_us = static_cast<int64_t>(*since_us);
    return filter;
}

asked_thing thing_called(const std::string &word) {
    constexpr const char *words[] = {"flows", "clients", "counts", "gate"};
    const auto *found = std::ranges::find(words, word);
    if (found == std::end(words))
        throw mistake("nothing called that can be asked for");
    return static_cast<asked_thing>(found - std::begin(words));
}

bool flag_in(const json &object, const char *name) {
    const json *value = member(object, name);
    if (value != nullptr && !value->is_boolean())
        throw mistake(std::string(name) + " is neither true nor false");
    return value != nullptr && value->get<bool>();
}

follow_wish wish_in(const json &object, uint32_t id) {
    follow_wish wish = {.id = id, .filter = filter_in(object)};
    for (const json &word : object["follow"]) {
        const bool flows = word == "flows";
        if (!flows && word != "events")
            throw mistake("follow holds something else than \"flows\" and \"events\"");
        (flows ? wish.flows : wish.events) = true;
    }
    wish.brief = flag_in(object, "brief");
    if (const auto every_ms = number_in(object, "every_ms", SHORTEST_MS, LONGEST_MS))
        wish.every_ms = static_cast<int64_t>(*every_ms);
    if (const auto within_ms = number_in(object, "ended_within_ms", 0, LONGEST_AGO_MS))
        wish.ended_within_ms = static_cast<int64_t>(*within_ms);
    return wish;
}

std::optional<ip_address> address_in(const json &object, const char *name) {
    const std::string text = text_in(object, name);
    const std::optional<ip_address> address = ip_address::parse(text);
    if (!text.empty() && !address)
        throw mistake(std::string(name) + " isn't an IP address");
    return address;
}

profile_question profile_in(const json &object, uint32_t id) {
    profile_question asked = {.id = id,
                              .client = {},
                              .server = address_in(object, "server"),
                              .name = text_in(object, "name"),
                              .rule = number_in(object, "rule", 0, INT64_MAX)};
    const std::string mac = text_in(object, "client_mac");
    const std::optional<mac_address> client_mac = mac_in(mac);
    const std::optional<ip_address> client = address_in(object, "client");
    if (!mac.empty() && !client_mac)
        throw mistake("client_mac isn't a MAC address");
    if (!client_mac && !client)
        throw mistake("neither client nor client_mac is there");
    if (!asked.server && asked.name.empty())
        throw mistake("neither server nor name is there");
    asked.client.mac = client_mac.value_or(mac_address());
    asked.client.address = client.value_or(ip_address());
    return asked;
}

watch_line read_object(const json &object, uint32_t id) {
    const json *follow = member(object, "follow");
    if (follow != nullptr && !follow->is_array())
        throw mistake("follow isn't an array");
    if (follow != nullptr)
        return wish_in(object, id);
    if (text_in(object, "ask") == "profile")
        return profile_in(object, id);
    return watch_question{id, thing_called(text_in(object, "ask")), filter_in(object)};
}

} // namespace

watch_line read_question(std::string_view line) {
    const json object = read_json(line);
    if (!object.is_object())
        return refusal{std::nullopt, "the line isn't a JSON object"};
    std::optional<uint32_t> id;
    try {
        const auto number = number_in(object, "id", 0, std::numeric_limits<uint32_t>::max());
        if (!number)
            return refusal{std::nullopt, "there is no id"};
        id = static_cast<uint32_t>(*number);
        return read_object(object, *id);
    } catch (const mistake &error) {
        return refusal{id, error.what()};
    }
}

} // namespace avcore
