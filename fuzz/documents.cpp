// Documents of jornctl, whoever wrote them: refused as a whole, or with a line for each mistake,
// or taken; and what is taken is said in words that are taken for the same, makes tables to which
// nothing more has to be sent, and leads from other tables to what all of its commands lead to.
//
// An input is a document, or behind a line "=" a second one for the daemon that has the first.
#include "jornctl/documents/documents.h"
#include "demand.h"
#include "jornctl/base/failure.h"
#include "jornctl/client/apply.h"
#include "jornctl/client/commands.h"
#include "jornctl/tables/differences.h"
#include "jornctl/tables/differing_commands.h"
#include "jornctl/tables/document_of.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace jornctl;

constexpr size_t LINES_MAX = 1'001;
constexpr std::string_view DIVIDER = "\n=\n";

// A machine for which some of the names fit.
const platform_facts AROUND = {std::set<std::string>{"clock", "youtube"},
                               client_facts{{"wlan0", "wlan1"}, {1, 10}, {2}}};

void check_lines(const std::vector<std::string> &lines) {
    demand(lines.size() <= LINES_MAX);
    demand(std::ranges::none_of(lines, [](const std::string &line) { return line.empty(); }));
}

// Without mistakes; else nothing.
std::optional<document> read(std::string_view text) {
    try {
        document found = read_document(text, AROUND);
        demand(!lines_of_values(text).empty());
        check_lines(found.found.mistakes());
        check_lines(found.found.warnings());
        return found.found.has_mistakes() ? std::nullopt : std::optional(std::move(found));
    } catch (const refused &reason) {
        demand(reason.what()[0] != '\0');
        return std::nullopt;
    }
}

void check_alone(const document &wanted) {
    const std::string words = to_text(document_words(wanted));
    const std::optional<document> again = read(words);
    demand(again && to_text(document_words(*again)) == words);
    const daemon_tables tables = tables_of(wanted);
    demand(same(tables, tables_of(*again)));
    demand(shortest_way(tables, wanted).groups.empty());
    const document said = document_of(tables);
    demand(read(to_text(document_words(said))).has_value());
    for (const command &each : commands_of(wanted))
        demand(!describe(each).empty());
}

void check_way(const daemon_tables &from, const document &wanted) {
    const way whole = whole_way(from, wanted);
    const way taken = shortest_way(from, wanted);
    demand(count_of(taken.groups) <= count_of(whole.groups));
    demand(same(taken.end, whole.end));
    const std::vector<difference> found = differences(from, taken.end);
    demand(same(from, taken.end) ? found.empty() : !taken.groups.empty());
    demand(json_of(found).size() == found.size());
    for (const difference &each : found) {
        demand(!lines_of(each).empty());
        check_lines(lines_of(each));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const ordered_json schema = document_schema();
    demand(schema.contains("properties"));
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const size_t divider = text.find(DIVIDER);
    const std::optional<document> first = read(text.substr(0, divider));
    if (!first)
        return 0;
    check_alone(*first);
    check_way({}, *first);
    if (divider == text.npos)
        return 0;
    if (const auto second = read(text.substr(divider + DIVIDER.size())))
        check_way(tables_of(*first), *second);
    return 0;
}
