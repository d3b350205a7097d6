#include "avcore/report/report.h"

#include "avcore/base/printable.h"
#include "shared/counted.h"
#include "shared/json_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

namespace avcore {
namespace {

// The station comes last: a narrow terminal wraps it alone.
enum column { CLIENT, SERVER, PROTOCOL, APPLICATION, VERDICT, PACKETS, BYTES, DROPPED, CLIENT_MAC };
constexpr size_t COLUMNS = std::tuple_size_v<row_writer::table_line>;
constexpr char CELL_END = '\0';
constexpr int ROWS_AT_ONCE = 16;

std::string verdict_text(const flow_row &row) {
    std::string text = verdict_word(row.verdict);
    if (row.wificalling)
        text += ", wifi calling " + std::to_string(row.wfc_priority);
    return row.outdated ? text + " (outdated)" : text;
}

struct passage {
    uint64_t packets;
    uint64_t bytes;
    uint64_t dropped;
};

// A gate forgets the flows that it hasn't seen for longest.
passage passage_of(const flow_row &row, const gate *gate) {
    const row_enforcement &state = row.enforcement;
    gate_counter seen = {};
    if (gate != nullptr && state.flow)
        seen = gate->counter_of(*state.flow);
    const passage passed = {seen.packets[GATE_UP] + seen.packets[GATE_DOWN],
                            seen.bytes[GATE_UP] + seen.bytes[GATE_DOWN],
                            seen.denied + seen.limited};
    return passed.packets + passed.dropped != 0 ? passed : passage{row.packets, row.bytes, 0};
}

row_writer::table_line line_of(const flow_row &row, const gate *gate) {
    const passage passed = passage_of(row, gate);
    row_writer::table_line line;
    line[CLIENT] = endpoint_text(row, row.client);
    line[SERVER] = endpoint_text(row, row.server);
    line[PROTOCOL] = protocol_text(row);
    const std::string &application = application_of(row);
    line[APPLICATION] = application.empty() ? "-" : printable(application);
    line[VERDICT] = verdict_text(row);
    line[PACKETS] = std::to_string(passed.packets);
    line[BYTES] = std::to_string(passed.bytes);
    line[DROPPED] = std::to_string(passed.dropped);
    line[CLIENT_MAC] = mac_text(row.client.mac);
    return line;
}

row_writer::table_line line_of(const flow_sum &sum) {
    row_writer::table_line line;
    line.fill("-");
    line[CLIENT] = std::to_string(sum.flows) + " flows, seen longest ago";
    line[PACKETS] = std::to_string(sum.packets);
    line[BYTES] = std::to_string(sum.bytes);
    return line;
}

nlohmann::ordered_json object_of(const flow_row &row, const gate *gate) {
    const passage passed = passage_of(row, gate);
    nlohmann::ordered_json object = {
        {"client", address_text(row, row.client)},
        {"client_mac", mac_text(row.client.mac)},
        {"server", address_text(row, row.server)},
        {"client_port", row.client.port},
        {"server_port", row.server.port},
        {"protocol", protocol_text(row)},
        {"application", application_of(row)},
        {"verdict", row.verdict},
        {"packets", passed.packets},
        {"bytes", passed.bytes},
    };
    if (gate != nullptr)
        object["dropped"] = passed.dropped;
    if (!row.host.empty())
        object["host"] = row.host;
    if (row.wificalling) {
        object["wificalling"] = true;
        object["priority"] = row.wfc_priority;
        object["fqdn"] = row.wfc_fqdn;
    }
    if (row.outdated)
        object["outdated"] = true;
    return object;
}

nlohmann::ordered_json object_of(const flow_sum &sum) {
    return {{"flows_seen_longest_ago", sum.flows}, {"packets", sum.packets}, {"bytes", sum.bytes}};
}

struct remark {
    const char *name;
    std::string what;
    uint64_t count;
};

// What is said only where it happened.
std::vector<remark> remarks_of(const flow_table &flows, const totals &totals) {
    const feeder_counts &fed = totals.feeder;
    return {
        {"other_link_type", "not carried, for the link type isn't Ethernet",
         totals.source.other_link_type},
        {"too_long", "not carried, longer than " + std::to_string(totals.max_frame_size) + " bytes",
         totals.source.too_long},
        {"empty", "not carried, empty", totals.source.empty},
        {"reserved_addresses",
         "not carried, for an address is one of 240.0.0.0/4 or IPv4's in IPv6",
         totals.frames.reserved},
        {"unwalked", "IPv6 packets whose extension headers weren't walked to their end",
         totals.frames.unwalked},
        {"answers_refused",
         "DNS answers that weren't taken, for they aren't a resolver's or answer no question",
         totals.frames.answers_refused},
        {"cut_short", "carried as captured, without their ends", totals.source.cut_short},
        {"dropped_by_kernel", "dropped by the kernel before they were read", totals.source.dropped},
        {"stale_copies", "copies that had waited for too long", totals.source.stale},
        {"start_repeats", "repeats of a first frame until the daemon answered", fed.start_repeats},
        {"overlooked_verdicts", "verdicts that answered no frame", fed.overlooked},
        {"malformed_messages", "malformed messages on the AV channel", totals.malformed_messages},
        {"unknown_flows", "verdicts for flows that aren't in the table", flows.unknown()},
        {"refused_writes", "verdicts and rate limits that the kernel refused to take",
         totals.refused_writes},
        {"refused_safe_search", "refused settings of safe search", totals.refused_safe_search},
        {"late_answers", "late answers of the URL-filtering agent", totals.agent.sent},
        {"undelivered_answers", "late answers that no daemon took", totals.agent.undelivered},
        {"dropped_answers", "late answers dropped, for too many were waiting",
         totals.agent.no_room},
    };
}

} // namespace

row_writer::row_writer(const flow_table &flows, const gate *gate, bool json)
    : flows_(flows),
      gate_(gate),
      json_(json),
      summed_(flows.summed()),
      sum_due_(summed_.flows > 0) {
    for (const flow_row *row : flows.rows())
        ids_.push_back(row->id);
    if (!json)
        add_line({"CLIENT", "SERVER", "PROTOCOL", "APPLICATION", "VERDICT", "PACKETS", "BYTES",
                  "DROPPED", "CLIENT MAC"});
}

// The next one that is still there; null behind the last one.
const flow_row *row_writer::next_row() {
    while (next_ < ids_.size()) {
        if (const flow_row *row = flows_.find(ids_[next_++]))
            return row;
    }
    return nullptr;
}

bool row_writer::add_some(std::string &out) {
    for (int steps = 0; steps < ROWS_AT_ONCE; ++steps) {
        if (!(json_ ? add_object(out) : take_line() || lay_out_line(out)))
            return false;
    }
    return true;
}

bool row_writer::add_object(std::string &out) {
    nlohmann::ordered_json object;
    if (const flow_row *row = next_row())
        object = object_of(*row, gate_);
    else if (std::exchange(sum_due_, false))
        object = object_of(summed_);
    else
        return false;
    out += ascii_json_text(object);
    out += '\n';
    return true;
}

void row_writer::add_line(const table_line &line) {
    for (size_t i = 0; i < COLUMNS; ++i) {
        widths_[i] = std::max(widths_[i], line[i].size());
        lines_ += line[i];
        lines_ += CELL_END;
    }
}

bool row_writer::take_line() {
    if (const flow_row *row = next_row())
        add_line(line_of(*row, gate_));
    else if (std::exchange(sum_due_, false))
        add_line(line_of(summed_));
    else
        return false;
    return true;
}

bool row_writer::lay_out_line(std::string &out) {
    if (laid_out_ == lines_.size())
        return false;
    for (size_t i = 0; i < COLUMNS; ++i) {
        const size_t end = lines_.find(CELL_END, laid_out_);
        const std::string cell = lines_.substr(laid_out_, end - laid_out_);
        laid_out_ = end + 1;
        if (i == CLIENT_MAC) {
            out += cell + '\n';
        } else if (i != DROPPED || gate_ != nullptr) {
            const std::string padding(widths_[i] - cell.size(), ' ');
            out += (i >= PACKETS ? padding + cell : cell + padding) + "  ";
        }
    }
    return true;
}

named_counts counts_of(const flow_table &flows, const totals &totals) {
    const feeder_counts &fed = totals.feeder;
    named_counts counts = {
        {"flows", flows.all().flows},          {"bytes", flows.all().bytes},
        {"frames_read", totals.source.read},   {"frames_fed", fed.sent},
        {"frames_answered", fed.answered},     {"frames_resent", fed.resent},
        {"frames_unanswered", fed.unanswered},
    };
    for (const remark &each : remarks_of(flows, totals))
        counts.push_back({each.name, each.count});
    return counts;
}

void print_totals(std::ostream &out, const flow_table &flows, const totals &totals) {
    const flow_sum &all = flows.all();
    const feeder_counts &fed = totals.feeder;
    out << counted(all.flows, "flow", "flows") << ", " << all.bytes
        << " bytes; frames: " << totals.source.read << " read, " << fed.sent << " fed, "
        << fed.answered << " answered, " << fed.resent << " resent, " << fed.unanswered
        << " unanswered\n";
    for (const remark &each : remarks_of(flows, totals)) {
        if (each.count != 0)
            out << each.what << ": " << each.count << '\n';
    }
    const char *separator = "switched by the daemon: ";
    for (const auto &[name, value] : totals.switches) {
        out << separator << name << " = " << value;
        separator = ", ";
    }
    if (!totals.switches.empty())
        out << '\n';
    if (totals.engine_unasked)
        out << "no daemon asked for the DPI engine: a daemon asks once, at its start\n";
}

} // namespace avcore
