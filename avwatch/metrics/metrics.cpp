#include "avwatch/metrics/metrics.h"

#include <array>
#include <map>
#include <nlohmann/json.hpp>

namespace avwatch {
namespace {

constexpr size_t VALUES_MAX = 256; // of avcore's and of the gate's

// The series of one family that one amount gives.
struct counter {
    amount of;
    const char *label; // with its value, behind the others
};
struct family {
    const char *name; // behind "jorn_" or "jorn_client_"
    const char *help;
    std::array<counter, 2> counters;
    size_t count;
};
constexpr family FAMILIES[] = {
    {"bytes_total",
     "Bytes that passed.",
     {{{UP_BYTES, ",direction=\"up\""}, {DOWN_BYTES, ",direction=\"down\""}}},
     2},
    {"packets_total",
     "Packets that passed.",
     {{{UP_PACKETS, ",direction=\"up\""}, {DOWN_PACKETS, ",direction=\"down\""}}},
     2},
    {"dropped_packets_total",
     "Packets that a denial or a rate limit dropped.",
     {{{DENIED_PACKETS, ",by=\"denial\""}, {LIMITED_PACKETS, ",by=\"limit\""}}},
     2},
    {"flows_total", "Flows.", {{{FLOWS, ""}, {}}}, 1},
    {"denials_total", "Flows that came to be denied.", {{{DENIALS, ""}, {}}}, 1},
};

// A label's value in the quotes around it.
std::string label_text(const std::string &text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '"')
            escaped += '\\';
        const bool is_control = static_cast<unsigned char>(c) < ' ' || c == '\x7F';
        escaped += is_control ? '?' : c;
    }
    return '"' + escaped + '"';
}

void add_head(std::string &out, const std::string &name, const char *help, const char *type) {
    out += "# HELP " + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
}

void add_gauge(std::string &out, const std::string &name, const char *help, uint64_t value) {
    add_head(out, name, help, "gauge");
    out += name + ' ' + std::to_string(value) + '\n';
}

void add_sample(std::string &out, const std::string &name, const std::string &labels,
                uint64_t value) {
    out.append(name).append("{").append(labels).append("} ");
    out.append(std::to_string(value)).append("\n");
}

// By their labels: several sums may be shown under the same.
using labelled = std::map<std::string, amounts>;

void add_families(std::string &out, const std::string &prefix, const labelled &series) {
    for (const family &each : FAMILIES) {
        const std::string name = prefix + each.name;
        add_head(out, name, each.help, "counter");
        for (const auto &[labels, values] : series) {
            for (size_t i = 0; i < each.count; ++i)
                add_sample(out, name, labels + each.counters[i].label, values[each.counters[i].of]);
        }
    }
}

std::string application_labels(const std::string &application, uint8_t verdict) {
    const std::string_view word = verdict < VERDICTS ? VERDICT_WORDS[verdict] : VERDICT_WORDS[0];
    return "application=" + label_text(application.empty() ? UNNAMED : application) +
           ",verdict=" + label_text(std::string(word));
}

labelled application_series(const totals &committed, names_kept names) {
    labelled series;
    // There from the start: whoever asks by how much they grew gets an answer for the first growth,
    // too.
    for (uint8_t verdict = 0; verdict < VERDICTS; ++verdict)
        series[application_labels(OTHER, verdict)] = {};
    for (const auto &[key, values] : committed.applications()) {
        const auto &[name, verdict] = key;
        add(series[application_labels(reduced(name, names).text, verdict)], values);
    }
    return series;
}

labelled client_series(const totals &committed) {
    labelled series;
    for (const auto &[client, values] : committed.clients())
        add(series["client=" + label_text(client)], values);
    return series;
}

void add_values(std::string &out, const std::string &name, const counts_record &values) {
    size_t left = VALUES_MAX;
    for (const auto &[key, value] : values) {
        if (left-- == 0)
            return;
        add_sample(out, name, "name=" + label_text(key), value);
    }
}

void add_exports(std::string &out, const std::vector<export_counts> &exports) {
    constexpr struct {
        const char *name;
        const char *help;
        uint64_t export_counts::*value;
    } counters[] = {
        {"jorn_export_records_total", "Records of flows for collectors.", &export_counts::records},
        {"jorn_export_messages_total", "Messages that were sent.", &export_counts::messages},
        {"jorn_export_failed_messages_total", "Messages that were refused.",
         &export_counts::failed},
        {"jorn_export_dropped_total",
         "Records that there was no room for, and news of too many flows.",
         &export_counts::dropped},
    };
    for (const auto &each : counters) {
        if (!exports.empty())
            add_head(out, each.name, each.help, "counter");
        for (const export_counts &counts : exports)
            add_sample(out, each.name, "to=" + label_text(counts.target), counts.*each.value);
    }
}

void put_number(counts_record &numbers, const std::string &key, const nlohmann::json &value) {
    if (numbers.size() >= VALUES_MAX)
        return;
    if (value.is_boolean())
        numbers[key] = value.get<bool>() ? 1 : 0;
    else if (value.is_number_unsigned())
        numbers[key] = value.get<uint64_t>();
}

} // namespace

counts_record numbers_in(const nlohmann::json &object) {
    counts_record numbers;
    if (!object.is_object())
        return numbers;
    for (const auto &[key, value] : object.items()) {
        put_number(numbers, key, value);
        if (!value.is_object())
            continue;
        for (const auto &[inner, inner_value] : value.items())
            put_number(numbers, std::string(key).append(".").append(inner), inner_value);
    }
    return numbers;
}

std::string metrics_text(const totals &committed, const health &state,
                         const metrics_settings &settings) {
    std::string out;
    add_families(out, "jorn_", application_series(committed, settings.names));
    if (settings.clients)
        add_families(out, "jorn_client_", client_series(committed));
    add_gauge(out, "jorn_avcore_up", "1 while avcore tells what it knows.", state.hears_avcore);
    add_head(out, "jorn_avcore_value", "What avcore counts, since its start.", "gauge");
    add_values(out, "jorn_avcore_value", state.counts);
    if (!state.gate.empty()) {
        add_head(out, "jorn_gate_value", "What the gate says of itself.", "gauge");
        add_values(out, "jorn_gate_value", state.gate);
    }
    add_exports(out, state.exports);
    add_gauge(out, "jorn_history_writable", "1 while the history can be written.",
              state.writes_history);
    add_gauge(out, "jorn_history_written_timestamp_seconds", "When the last counts were committed.",
              static_cast<uint64_t>(state.written_s));
    add_gauge(out, "jorn_history_size_bytes", "Of the history's file.", state.history_bytes);
    add_gauge(out, "jorn_history_open_flows", "Flows that haven't ended.", state.open_flows);
    add_gauge(out, "jorn_history_uncounted_messages",
              "Messages about flows that are too many to be counted.", state.uncounted);
    add_gauge(out, "jorn_history_misunderstood_messages",
              "Messages of avcore that weren't understood, of this connection.", state.passed_over);
    return out;
}

} // namespace avwatch
