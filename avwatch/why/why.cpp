#include "avwatch/why/why.h"

#include "avcore/base/host_text.h"
#include "avwatch/base/complain.h"
#include "avwatch/base/shown_text.h"
#include "avwatch/client/records.h"
#include "avwatch/why/watched_facts.h"
#include "avwatch/why/words.h"
#include "jornctl/base/complain.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <iostream>
#include <netinet/in.h>
#include <optional>
#include <utility>

namespace avwatch {
namespace {

constexpr int NOT_ANSWERED = 2;

flow_facts facts_of(const why_settings &asked, const invocation &around) {
    if (asked.config_file.empty())
        return facts_from_avcore(asked, around);
    const known_clients named(read_settings(around.settings_file).aliases, {});
    return facts_from_files(named.find(asked.client), asked);
}

// A server that is given by its name is one of --name.
why_settings with_name_apart(why_settings asked) {
    const std::string host = asked.server.substr(0, asked.server.rfind(':'));
    const auto is_letter = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
    const bool is_name = avcore::is_host_text(host) &&
                         std::ranges::any_of(host.substr(host.rfind('.') + 1), is_letter);
    if (is_name && asked.name.empty()) {
        asked.name = host;
        asked.server.erase(0, host.size());
    }
    return asked;
}

// Where no protocol was given, and no flow has one: the other's answer, where that is another.
std::optional<outcome> other_protocols(const why_settings &asked, const flow_facts &facts,
                                       const configuration &made, const outcome &found) {
    if (!asked.protocol.empty() || facts.is_there)
        return std::nullopt;
    judged_flow other = facts.flow;
    other.ip_proto = other.ip_proto == IPPROTO_TCP ? IPPROTO_UDP : IPPROTO_TCP;
    outcome by_other = judge(made, {}, other, facts.answers);
    return is_same_decision(found, by_other) ? std::nullopt : std::optional(std::move(by_other));
}

// Calls `say` with the answer, and returns what that does.
template <typename Say>
auto with_answer(const why_settings &asked, const invocation &around, Say &&say) {
    const flow_facts facts = facts_of(asked, around);
    loaded_documents documents = load_documents(asked.policy_file);
    documents.made.dpi_engine = facts.dpi_engine;
    const fitting_parts fitting = find_fitting(documents.made, facts.flow, facts.answers);
    return say(answer{documents, facts, fitting,
                      other_protocols(asked, facts, documents.made, fitting.now)});
}

int print(const answer &found, bool as_json) {
    if (as_json) {
        std::cout << to_line(json_of(found)) << '\n';
    } else {
        for (const std::string &line : lines_of(found))
            std::cout << shown_text(line) << '\n';
    }
    return status_of(found.fitting.now);
}

} // namespace

int explain(const why_settings &asked, const invocation &around) {
    jornctl::complain_as("avwatch");
    try {
        return with_answer(with_name_apart(asked), around,
                           [&](const answer &found) { return print(found, asked.as_json); });
    } catch (const std::exception &reason) {
        complain(reason.what());
        return NOT_ANSWERED;
    }
}

std::vector<labelled_text> what_else(const why_settings &asked, const invocation &around) {
    return with_answer(asked, around, what_else_of);
}

} // namespace avwatch
