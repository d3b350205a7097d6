#include "jornctl/fields/fields.h"

#include "shared/suggestion.h"

namespace jornctl {
namespace {

void check_known(const node &from, const std::vector<key_rule> &rules) {
    std::vector<std::string> known(rules.size());
    std::transform(rules.begin(), rules.end(), known.begin(),
                   [](const key_rule &rule) { return rule.key; });
    for (const auto &[key, value] : from.value.items()) {
        if (from.found.is_full())
            return;
        if (std::find(known.begin(), known.end(), key) == known.end())
            node{value, from.path / key, from.found}.blame(
                "isn't known here" + did_you_mean(key, known) + "; the keys are " + joined(known));
    }
}

} // namespace

void check_keys(const node &from, const std::vector<key_rule> &rules) {
    if (!from.value.is_object())
        from.refuse("is " + from.described() + "; it must be an object");
    for (const key_rule &rule : rules) {
        if (rule.needed == REQUIRED && !from.has(rule.key))
            from.blame(std::string("has no ") + rule.key);
        if (rule.needs != nullptr && from.has(rule.key) && !from.has(rule.needs))
            from.at(rule.key).blame(std::string("needs a ") + rule.needs);
    }
    check_known(from, rules);
}

void check_array(const node &from, size_t most) {
    if (!from.value.is_array())
        from.refuse("is " + from.described() + "; it must be an array");
    if (from.value.size() > most)
        from.refuse("has " + std::to_string(from.value.size()) + " elements; " +
                    std::to_string(most) + " have room");
}

bool says_nothing(const ordered_json &words) {
    if (words.is_structured())
        return words.empty();
    const ordered_json::value_t kind = words.type();
    return words == ordered_json(kind); // the kind's own nothing: null, false, 0, an empty text
}

ordered_json array_schema(ordered_json elements, size_t most) {
    return {{"type", "array"}, {"items", std::move(elements)}, {"maxItems", most}};
}

void require_keys(ordered_json &schema, const std::vector<key_rule> &rules) {
    schema["additionalProperties"] = false;
    for (const key_rule &rule : rules) {
        if (rule.needed == REQUIRED)
            schema["required"].push_back(rule.key);
        if (rule.needs != nullptr)
            schema["dependencies"][rule.key] = {rule.needs};
    }
}

} // namespace jornctl
