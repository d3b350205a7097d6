// What `avwatch why` makes of questions, documents and flows about them: a line of JSON each on
// standard input, and on standard output for each flow the record of its verdict and those of the
// ones that would follow, each with the part that decides. In a program of its own, for the test
// that asks has another platform.
#include "avwatch/why/documents.h"
#include "avwatch/why/fitting.h"
#include "shared/json_text.h"
#include "support/hex_records.h"

#include <arpa/inet.h>
#include <iostream>

using namespace avwatch;
using nlohmann::json;

namespace {

uint32_t address_of(const std::string &text) {
    uint32_t address_be = 0;
    inet_pton(AF_INET, text.c_str(), &address_be);
    return address_be;
}

judged_flow flow_of(const json &asked) {
    judged_flow flow;
    flow.client_be = address_of(asked["client"]);
    flow.server_be = address_of(asked["server"]);
    flow.client_port = asked["client_port"];
    flow.server_port = asked["server_port"];
    flow.ip_proto = asked["protocol"];
    from_hex(asked["trailer"].get_ref<const std::string &>(), flow.trailer);
    return flow;
}

platform_answers answers_of(const json &asked) {
    platform_answers answers;
    for (const auto &[address, name] : asked["names"].items())
        answers.names[address_of(address)] = name;
    answers.categories = [&asked](std::string_view) -> std::optional<urlf_answer> {
        const json &categories = asked["categories"];
        if (categories.is_null())
            return std::nullopt;
        urlf_answer answer = {};
        for (const int32_t category : categories)
            answer.categories[answer.category_count++] = category;
        return answer;
    };
    return answers;
}

json said_of(const loaded_documents &documents, outcome found) {
    found.verdict.flow_key = {};
    json said = {{"record", to_hex(found.verdict)}};
    const std::optional<part> by = removable(found);
    if (by && by->kind == part_kind::PORT_LINE)
        said["line"] = by->record;
    else if (by)
        said.update({{"path", path_of(*by)}, {"document", documents.text_of(by->kind).name}});
    return said;
}

} // namespace

int main() {
    for (std::string line; std::getline(std::cin, line);) {
        const json question = read_json(line);
        const json &asked = question["documents"];
        loaded_documents documents;
        if (!asked["tried"].empty())
            documents = documents_from("tried", json_text(asked["tried"]));
        documents.made.in_force =
            documents_from("in_force", json_text(asked["in_force"])).made.tried;
        documents.in_force.name = "in_force";
        documents.made.port_services = asked["port_services"];
        json answers = json::array();
        for (const json &flow : question["flows"]) {
            const fitting_parts fitting =
                find_fitting(documents.made, flow_of(flow), answers_of(flow));
            json &said = answers.emplace_back();
            said.push_back(said_of(documents, fitting.now));
            for (const outcome &each : fitting.then)
                said.push_back(said_of(documents, each));
        }
        std::cout << answers << '\n';
    }
}
