#include "avcore/enforce/gate_report.h"
#include "shared/json_text.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <nlohmann/json.hpp>
#include <ostream>

namespace avcore {
namespace {

// In the order of gate_count.
constexpr struct {
    const char *key; // of the JSON
    const char *what;
} COUNTS[] = {
    {"decided", "packets passed under a verdict"},
    {"undecided", "packets passed before their verdict"},
    {"nobody", "packets passed because nobody was there"},
    {"always", "packets passed, for a network lives by them"},
    {"not_ip", "packets passed that are neither IPv4 nor IPv6"},
    {"fragments", "later fragments passed"},
    {"denied", "packets dropped by policy"},
    {"limited", "packets dropped by a rate limit"},
    {"shut", "packets dropped undecided, for nobody was there"},
    {"malformed", "packets dropped, for their headers are broken"},
    {"reserved", "packets dropped, of the reserved addresses 240.0.0.0/4"},
    {"deep_headers", "packets dropped, for they have too many or too long extension headers"},
    {"tags", "packets dropped, for they have too many VLAN tags"},
    {"cut", "clients' fragments dropped"},
    {"too_much", "packets dropped that always pass, beyond what a client may send of them"},
    {"excess", "packets dropped without a verdict, for their client had too many copies"},
    {"held", "packets held until their flow's first verdict"},
    {"held_long", "packets dropped undecided, for they are too long to be held"},
    {"holds_refused", "packets dropped undecided, for their client had too many to be held"},
    {"holds_lost", "packets dropped undecided, for nobody took them in time"},
    {"resets", "connections' sides reset"},
    {"copies", "copies for the daemon"},
    {"copies_refused", "copies refused, for their client had too many"},
    {"copies_lost", "copies lost, for nobody took them in time"},
    {"back", "held packets that came back"},
    {"flows", "flows counted"},
};
static_assert(std::size(COUNTS) == GATE_COUNTS);

// What avcore did with held packets, and how many it has still, or had when it was killed or their
// interface went down.
struct ending_row {
    const char *key;
    const char *what;
    uint64_t count;
};
std::array<ending_row, 4> rows_of(const gate_counts &counts, const gate_endings &endings) {
    const uint64_t told =
        counts[GATE_COUNT_BACK] + endings.unjudged + endings.crowded + endings.unwritten;
    const uint64_t held = counts[GATE_COUNT_HELD];
    return {
        {{"held_unjudged", "held packets dropped, for no verdict came in time", endings.unjudged},
         {"held_crowded", "packets dropped, for too many were held", endings.crowded},
         {"held_unwritten", "held packets that the kernel didn't take back", endings.unwritten},
         {"held_missing", "held packets that aren't back", held - std::min(held, told)}}};
}

using attach_ways = std::map<std::string, std::vector<attach_way>>;

std::string list_of(const std::vector<std::string> &names, const attach_ways &ways) {
    std::string list;
    for (const std::string &name : names) {
        list += (list.empty() ? "" : ", ") + name;
        for (const attach_way way : ways.at(name))
            list += std::string(" (") + name_of(way) + ")";
    }
    return list.empty() ? "nothing" : list;
}

// As [enforce] has it.
const char *word_of(bool passes) {
    return passes ? "pass" : "drop";
}

std::string undecided_text(const gate_rules &rules) {
    if (!rules.hold_undecided)
        return "pass";
    return "hold, " + std::to_string(rules.holds_per_second) + " a second of each client";
}

std::string beat_text(int64_t age_ms) {
    if (age_ms < 0)
        return "none yet";
    const bool fresh = age_ms * 1'000'000 <= static_cast<int64_t>(GATE_BEAT_NS);
    return std::to_string(age_ms) + " ms ago" + (fresh ? "" : ": nobody decides");
}

} // namespace

void print_gate_counts(std::ostream &out, const gate_counts &counts, const gate_endings &endings,
                       uint64_t forgotten_flows) {
    for (size_t i = 0; i < counts.size(); ++i) {
        if (counts[i] != 0)
            out << COUNTS[i].what << ": " << counts[i] << '\n';
    }
    for (const ending_row &row : rows_of(counts, endings)) {
        if (row.count != 0)
            out << row.what << ": " << row.count << '\n';
    }
    if (forgotten_flows != 0)
        out << "flows forgotten, for there were too many: " << forgotten_flows << '\n';
}

named_counts gate_counts_by_name(const gate_counts &counts, const gate_endings &endings,
                                 uint64_t forgotten_flows) {
    named_counts named;
    for (size_t i = 0; i < counts.size(); ++i)
        named.push_back({std::string("gate_") + COUNTS[i].key, counts[i]});
    for (const ending_row &row : rows_of(counts, endings))
        named.push_back({std::string("gate_") + row.key, row.count});
    named.push_back({"gate_flows_forgotten", forgotten_flows});
    return named;
}

void print_gate_status(std::ostream &out, const gate_status &status) {
    if (!status.there) {
        out << "there is no gate\n";
        return;
    }
    out << "attached to: " << list_of(status.interfaces, status.ways) << '\n';
    for (const auto &[access_point, names] : status.stations)
        out << "  stations of " << access_point << ": " << list_of(names, status.ways) << '\n';
    out << "without a daemon: " << (status.rules.fail_closed ? "closed" : "open") << '\n'
        << "copies a second of each client: " << status.rules.copies_per_second << '\n'
        << "beyond them: " << word_of(!status.rules.drop_excess)
        << ", clients' fragments: " << word_of(!status.rules.drop_fragments)
        << ", too many VLAN tags: " << word_of(status.rules.pass_tags) << '\n'
        << "undecided: " << undecided_text(status.rules) << '\n'
        << "beat: " << beat_text(status.beat_age_ms) << '\n'
        << "verdicts: " << status.census.verdicts[GATE_PASS] << " pass, "
        << status.census.verdicts[GATE_DENY] << " deny, " << status.census.verdicts[0]
        << " not final yet, generation " << status.generation << '\n';
    print_gate_counts(out, status.counts, status.endings, status.census.forgotten_flows);
}

void print_gate_status_json(std::ostream &out, const gate_status &status) {
    nlohmann::ordered_json object = {{"there", status.there}};
    if (status.there) {
        object["interfaces"] = status.interfaces;
        object["stations"] = status.stations;
        object["attached_by"] = nlohmann::ordered_json::object();
        for (const auto &[name, ways] : status.ways)
            for (const attach_way way : ways)
                object["attached_by"][name].push_back(name_of(way));
        object["fail"] = status.rules.fail_closed ? "closed" : "open";
        object["copies"] = status.rules.copies_per_second;
        object["excess"] = word_of(!status.rules.drop_excess);
        object["fragments"] = word_of(!status.rules.drop_fragments);
        object["tags"] = word_of(status.rules.pass_tags);
        object["undecided"] = status.rules.hold_undecided ? "hold" : "pass";
        object["holds"] = status.rules.holds_per_second;
        if (status.beat_age_ms >= 0)
            object["beat_age_ms"] = status.beat_age_ms;
        object["generation"] = status.generation;
        object["verdicts"] = {{"not_final", status.census.verdicts[0]},
                              {"pass", status.census.verdicts[GATE_PASS]},
                              {"deny", status.census.verdicts[GATE_DENY]}};
        for (size_t i = 0; i < status.counts.size(); ++i)
            object["counts"][COUNTS[i].key] = status.counts[i];
        for (const ending_row &row : rows_of(status.counts, status.endings))
            object["counts"][row.key] = row.count;
        object["counts"]["flows_forgotten"] = status.census.forgotten_flows;
    }
    out << json_text(object) << '\n'; // names may be of any bytes
}

} // namespace avcore
