#include "avwatch/why/why.h"

#include "avwatch/base/complain.h"
#include "avwatch/base/shown_text.h"
#include "avwatch/client/records.h"
#include "avwatch/why/watched_facts.h"
#include "avwatch/why/words.h"
#include "jornctl/base/complain.h"

#include <exception>
#include <iostream>
#include <sstream>

namespace avwatch {
namespace {

constexpr int NOT_ANSWERED = 2;

flow_facts facts_of(const why_settings &asked, const invocation &around) {
    if (asked.config_file.empty())
        return facts_from_avcore(asked, around);
    const known_clients named(read_settings(around.settings_file).aliases, {});
    return facts_from_files(named.find(asked.client), asked);
}

void print_lines(const std::string &text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        std::cout << shown_text(line) << '\n';
}

int answer_question(const why_settings &asked, const invocation &around) {
    const flow_facts facts = facts_of(asked, around);
    loaded_documents documents = load_documents(asked.policy_file);
    documents.made.dpi_engine = facts.dpi_engine;
    const fitting_parts fitting = find_fitting(documents.made, facts.flow, facts.answers);
    const answer found = {documents, facts, fitting};
    if (asked.as_json)
        std::cout << to_line(json_of(found)) << '\n';
    else
        print_lines(text_of(found));
    return status_of(fitting.now);
}

} // namespace

int explain(const why_settings &asked, const invocation &around) {
    jornctl::complain_as("avwatch");
    try {
        return answer_question(asked, around);
    } catch (const std::exception &reason) {
        complain(reason.what());
        return NOT_ANSWERED;
    }
}

} // namespace avwatch
