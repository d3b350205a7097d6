#include "avcore/channel/tool_answers.h"

#include "shared/av_questions.h"

#include <set>

namespace avcore {
namespace {

// Texts, each with a NUL behind it, as far as they have room behind what is there.
void append_text(std::string &body, const std::string &text) {
    if (body.size() + text.size() + 1 <= AV_TOOL_ANSWER_MAX)
        body.append(text).push_back('\0');
}

std::vector<std::byte> make_text_answer(const question &asked, const std::string &body) {
    return make_answer(asked, 0, std::as_bytes(std::span(body)));
}

uint64_t bit_of(uint32_t utp_id) {
    return utp_id <= AV_UTP_ID_MAX ? uint64_t{1} << utp_id : 0;
}

// What sides of flows are given, all rules together.
struct given_profiles {
    const std::vector<std::string> &inputs;
    av_clients_answer ids = {};
    std::set<std::string> interfaces = {};

    void add(const side_profile &side) {
        ids.utps |= bit_of(side.utp_id);
        if (!side.if_name.empty())
            interfaces.insert(side.if_name);
        else if (inputs.empty())
            interfaces.insert(UNSEEN_INTERFACE);
        else
            interfaces.insert(inputs.begin(), inputs.end());
    }
    void add(const client_profile &client) {
        add(client.side);
        for (const uint32_t id : client.web_utp)
            ids.web_utps |= bit_of(id);
    }
};

std::vector<std::byte> answer_applications(const dpi_engine *engine, const question &asked) {
    if (engine == nullptr)
        return make_answer(asked, -1);
    std::string body;
    for (const known_application &application : engine->applications())
        append_text(body, application.name);
    return make_text_answer(asked, body);
}

std::vector<std::byte> answer_clients(const config &settings,
                                      const std::vector<std::string> &inputs,
                                      const question &asked) {
    given_profiles given = {.inputs = inputs};
    given.add(settings.client);
    given.add(settings.uplink);
    for (const client_rule &rule : settings.rules)
        given.add(rule.profile);
    std::string body(reinterpret_cast<const char *>(&given.ids), sizeof given.ids);
    for (const std::string &name : given.interfaces)
        append_text(body, name);
    return make_text_answer(asked, body);
}

} // namespace

std::vector<std::byte> answer_tool(const dpi_engine *engine, const config &settings,
                                   const std::vector<std::string> &inputs, const question &asked) {
    if (asked.head.op == AV_ASK_APPLICATIONS)
        return answer_applications(engine, asked);
    if (asked.head.op == AV_ASK_CLIENTS)
        return answer_clients(settings, inputs, asked);
    return make_answer(asked, -1);
}

} // namespace avcore
