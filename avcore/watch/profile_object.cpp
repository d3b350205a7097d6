#include "avcore/watch/profile_object.h"

#include "avcore/base/host_text.h"
#include "avcore/settings/client_rules.h"
#include "avcore/watch/json_text.h"

#include <optional>
#include <string_view>

namespace avcore {
namespace {

void add_filter(json_object &object, uint32_t filter_type, bool has_engine) {
    std::string words;
    const auto add = [&words](bool wanted, const char *word) {
        if (wanted)
            words += (words.empty() ? "\"" : ",\"") + std::string(word) + '"';
    };
    add((filter_type & AV_FILTER_URL) != 0, "url");
    add((filter_type & AV_FILTER_WIFICALLING) != 0, "wificalling");
    add(has_engine, "dpi");
    object.key("filter") += '[' + words + ']';
}

client_rules::fitting fitting_of(const profile_question &asked, const client_rules &rules,
                                 const config &settings) {
    if (asked.rule && *asked.rule == 0)
        return {rules.complete(settings.client), 0};
    if (asked.rule && *asked.rule <= settings.rules.size()) {
        const auto rule = static_cast<size_t>(*asked.rule);
        return {rules.complete(settings.rules[rule - 1].profile), rule};
    }
    return rules.fitting_of(asked.client);
}

void add_sides(json_object &object, const profile_question &asked, const profile_sources &sources) {
    const client_rules rules(sources.settings, sources.captured_on);
    const client_rules::fitting client = fitting_of(asked, rules, sources.settings);
    endpoint server_side;
    server_side.address = asked.server.value_or(ip_address());
    const side_profile server = rules.server(server_side);
    object.add("rule", client.rule);
    object.add("interface", client.profile.side.if_name);
    object.add("utp", client.profile.side.utp_id);
    object.add("if_index", client.profile.side.if_index);
    object.add("server_interface", server.if_name);
    object.add("server_utp", server.utp_id);
    object.add("server_if_index", server.if_index);
    object.add_pair("web_utp", client.profile.web_utp[0], client.profile.web_utp[1]);
    add_filter(object, client.profile.filter_type, sources.engine != nullptr);
}

void add_categories(json_object &object, const urlf_answer &answer) {
    std::string &list = object.key("categories") += '[';
    for (int32_t i = 0; i < answer.category_count; ++i) {
        list += i == 0 ? "" : ",";
        list += std::to_string(answer.categories[i]);
    }
    list += ']';
}

bool tells_of_engine(const config &settings) {
    const auto told = settings.platform_values.find(AV_KEY_DPI_ENGINE);
    return told != settings.platform_values.end() && told->second == "1";
}

} // namespace

void append_profile(std::string &out, const profile_question &asked,
                    const profile_sources &sources) {
    json_object object(out);
    add_sides(object, asked, sources);
    object.add("engine", tells_of_engine(sources.settings));
    std::string name = lower_case(asked.name);
    if (const std::string *known =
            asked.server ? sources.names.find(*asked.server, sources.time_us) : nullptr) {
        object.add("name", *known);
        object.add("name_us", sources.names.learnt_us(*asked.server));
        if (name.empty())
            name = *known;
    }
    if (name.empty())
        return;
    if (const auto application =
            sources.engine != nullptr ? sources.engine->application_for(name) : std::nullopt) {
        object.add("application", application->name);
        object.add("app_id", application->app_id);
        object.add("cat_id", application->cat_id);
    }
    if (const std::optional<urlf_answer> answer = sources.agent.answer_about(name))
        add_categories(object, *answer);
}

} // namespace avcore
