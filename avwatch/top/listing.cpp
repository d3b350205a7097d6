#include "avwatch/top/listing.h"

#include "avcore/base/host_text.h"
#include "avwatch/base/units.h"
#include "avwatch/present/flow_cells.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <tuple>

namespace avwatch {
namespace {

constexpr screen_column CLIENT_COLUMNS[] = {
    {"CLIENT", sizeof "02:00:00:00:00:01" - 1, 0, false, true},
    {"ADDRESS", sizeof "192.168.100.100" - 1, 4},
    {"APPS", 4, 3, true},
    {"FLOWS", 5, 2, true},
    {"UP NOW", sizeof "99.9 kB/s" - 1, 1, true},
    {"DOWN NOW", sizeof "99.9 kB/s" - 1, 1, true},
    {"UP", sizeof "99.9 kB" - 1, 2, true},
    {"DOWN", sizeof "99.9 kB" - 1, 2, true},
    {"DROPPED", 7, 3, true},
};
constexpr screen_column APPLICATION_COLUMNS[] = {
    {"APPLICATION", 17, 0, false, true},
    {"CLIENTS", 7, 3, true},
    {"FLOWS", 5, 2, true},
    {"UP NOW", sizeof "99.9 kB/s" - 1, 1, true},
    {"DOWN NOW", sizeof "99.9 kB/s" - 1, 1, true},
    {"UP", sizeof "99.9 kB" - 1, 2, true},
    {"DOWN", sizeof "99.9 kB" - 1, 2, true},
    {"DROPPED", 7, 3, true},
};
constexpr screen_column FLOW_COLUMNS[] = {
    {"CLIENT", 12, 1, false, true},
    {"SERVER", 15, 0, false, true},
    {"APPLICATION", 14, 0, false, true},
    {"VERDICT", sizeof "white list" - 1, 1},
    {"UP NOW", sizeof "99.9 kB/s" - 1, 1, true},
    {"DOWN NOW", sizeof "99.9 kB/s" - 1, 1, true},
    {"UP", sizeof "99.9 kB" - 1, 2, true},
    {"DOWN", sizeof "99.9 kB" - 1, 2, true},
    {"DROPPED", 7, 3, true},
    {"STATE", sizeof "undecided" - 1, 3},
};

double amount_of(list_order order, const traffic_rates &now, const traffic &up, const traffic &down,
                 const dropped_packets &dropped, uint64_t last_us) {
    switch (order) {
    case list_order::rate:
        return now.both();
    case list_order::up:
        return now.up;
    case list_order::down:
        return now.down;
    case list_order::total:
        return static_cast<double>(up.bytes + down.bytes);
    case list_order::dropped:
        return static_cast<double>(dropped.denied + dropped.limited);
    case list_order::seen:
        return static_cast<double>(last_us);
    case list_order::name:
        break;
    }
    return 0;
}

std::string server_text(const watched_flow &flow) {
    return flow.host.empty() ? endpoint_text(flow.server.text(), flow.server_port)
                             : flow.host.text();
}

} // namespace

std::string client_text(const present &shown, const std::string &key) {
    const std::string name = shown.clients().name_of(key);
    return name.empty() ? key : name;
}

const char *kind_word(list_kind kind) {
    constexpr const char *words[] = {"clients", "applications", "flows"};
    return words[static_cast<size_t>(kind)];
}

const char *order_word(list_order order) {
    constexpr const char *words[] = {"rate",    "rate up",   "rate down", "bytes",
                                     "dropped", "last seen", "name"};
    return words[static_cast<size_t>(order)];
}

listing::listing(const present &shown, const list_wanted &wanted, int64_t now_ms)
    : shown_(shown), wanted_(wanted), filter_(avcore::lower_case(wanted.filter)) {
    std::vector<listed> rows = found(now_ms);
    sort(rows);
    if (wanted.kind == list_kind::flows)
        numbers_.reserve(rows.size());
    for (const listed &each : rows) {
        if (each.flow != nullptr)
            numbers_.push_back(each.flow->number);
        else
            keys_.push_back(wanted.kind == list_kind::clients ? each.sum->client.text()
                                                              : each.sum->application.text());
    }
}

std::vector<listing::listed> listing::found(int64_t now_ms) const {
    std::vector<listed> rows;
    if (wanted_.kind == list_kind::flows) {
        const auto flows = shown_.flows(wanted_.chosen);
        rows.reserve(flows.size()); // there may be many, and the machine may be small
        for (const watched_flow *each : flows)
            add(rows, {nullptr, each, 0, 0, {}}, now_ms);
    } else {
        for (const flow_sum *each : sums())
            add(rows, {each, nullptr, 0, 0, {}}, now_ms);
    }
    return rows;
}

std::vector<const flow_sum *> listing::sums() const {
    const flow_choice &chosen = wanted_.chosen;
    if (wanted_.kind == list_kind::clients)
        return chosen.application ? shown_.clients_of(*chosen.application) : shown_.clients_used();
    return chosen.client ? shown_.applications_of(*chosen.client) : shown_.applications_used();
}

// There may be as many as a gate has flows: names are only made where they are needed.
void listing::add(std::vector<listed> &rows, listed added, int64_t now_ms) const {
    if (!filter_.empty() && !fits_filter(added))
        return;
    const figures found = figures_of(added, now_ms);
    added.amount =
        amount_of(wanted_.order, found.now, found.up, found.down, found.dropped, found.last_us);
    added.total = static_cast<double>(found.up.bytes + found.down.bytes);
    if (wanted_.order == list_order::name)
        added.name = avcore::lower_case(name_of(added));
    rows.push_back(std::move(added));
}

void listing::sort(std::vector<listed> &rows) {
    const auto place_of =
        [](const listed &of) -> std::tuple<uint64_t, std::string_view, std::string_view> {
        if (of.flow != nullptr)
            return {of.flow->number, {}, {}};
        return {0, of.sum->client.text(), of.sum->application.text()};
    };
    std::ranges::sort(rows, [&](const listed &a, const listed &b) {
        if (a.amount != b.amount)
            return a.amount > b.amount;
        if (const int order = a.name.compare(b.name); order != 0)
            return order < 0;
        if (a.total != b.total)
            return a.total > b.total;
        return place_of(a) < place_of(b);
    });
}

listing::figures listing::figures_of(const listed &of, int64_t now_ms) const {
    if (of.flow != nullptr)
        return {shown_.rates_of(*of.flow, now_ms), of.flow->up, of.flow->down, of.flow->dropped,
                of.flow->last_us};
    return {of.sum->now, of.sum->up, of.sum->down, of.sum->dropped, of.sum->last_us};
}

std::string listing::name_of(const listed &of) const {
    if (of.flow != nullptr)
        return server_text(*of.flow);
    return wanted_.kind == list_kind::clients ? client_text(shown_, of.sum->client.text())
                                              : of.sum->application.text();
}

bool listing::fits_filter(const listed &tried) const {
    const auto has = [&](std::initializer_list<std::string_view> texts) {
        return std::ranges::any_of(texts, [&](std::string_view text) {
            return avcore::lower_case(text).find(filter_) != std::string::npos;
        });
    };
    if (tried.flow != nullptr)
        return has({tried.flow->application.text(), tried.flow->host.text(),
                    tried.flow->server.text(), tried.flow->client.text(),
                    tried.flow->verdict().text(),
                    client_text(shown_, tried.flow->client_key.text())});
    if (wanted_.kind == list_kind::applications)
        return has({tried.sum->application.text()});
    const std::string &key = tried.sum->client.text();
    const known_client *known = shown_.clients().with_key(key);
    return has({key, client_text(shown_, key)}) ||
           (known != nullptr &&
            std::ranges::any_of(known->said.addresses,
                                [&](const std::string &address) { return has({address}); }));
}

std::string listing::key(size_t row) const {
    return wanted_.kind == list_kind::flows ? watched_flow::id_of(numbers_[row]) : keys_[row];
}

std::optional<size_t> listing::row_of(const std::string &key) const {
    const auto place = [](const auto &of, const auto &wanted) -> std::optional<size_t> {
        const auto at = std::ranges::find(of, wanted);
        return at != of.end() ? std::optional(static_cast<size_t>(at - of.begin())) : std::nullopt;
    };
    if (wanted_.kind != list_kind::flows)
        return place(keys_, key);
    const watched_flow *flow = shown_.flow(key);
    return flow != nullptr ? place(numbers_, flow->number) : std::nullopt;
}

const flow_sum *listing::sum_with(const std::string &key) const {
    flow_choice chosen = wanted_.chosen;
    (wanted_.kind == list_kind::clients ? chosen.client : chosen.application) = key;
    return shown_.sum(chosen);
}

std::span<const screen_column> listing::columns() const {
    switch (wanted_.kind) {
    case list_kind::clients:
        return CLIENT_COLUMNS;
    case list_kind::applications:
        return APPLICATION_COLUMNS;
    case list_kind::flows:
        break;
    }
    return FLOW_COLUMNS;
}

// Of what has gone meanwhile there is nothing.
std::vector<std::string> listing::cells(size_t row, int64_t now_ms) const {
    if (wanted_.kind == list_kind::flows) {
        if (const watched_flow *flow = shown_.flow(numbers_[row]))
            return flow_cells(*flow, now_ms);
    } else if (const flow_sum *sum = sum_with(keys_[row])) {
        return sum_cells(*sum);
    }
    return std::vector<std::string>(columns().size());
}

std::vector<std::string> listing::sum_cells(const flow_sum &sum) const {
    std::vector<std::string> cells = {name_of({&sum, nullptr, 0, 0, {}})};
    if (wanted_.kind == list_kind::clients) {
        const known_client *known = shown_.clients().with_key(sum.client.text());
        const bool has_address = known != nullptr && !known->said.addresses.empty();
        cells.push_back(has_address ? known->said.addresses.front() : "");
    }
    // One client's part of an application has no others.
    cells.push_back(sum.kind == sum_kind::client_application ? "" : std::to_string(sum.pairs));
    for (std::string &cell :
         std::vector{std::to_string(sum.flows), rate_text(sum.now.up), rate_text(sum.now.down),
                     size_text(sum.up.bytes), size_text(sum.down.bytes),
                     std::to_string(sum.dropped.denied + sum.dropped.limited)})
        cells.push_back(std::move(cell));
    return cells;
}

std::vector<std::string> listing::flow_cells(const watched_flow &flow, int64_t now_ms) const {
    const traffic_rates now = shown_.rates_of(flow, now_ms);
    return {client_text(shown_, flow.client_key.text()),
            server_text(flow),
            flow.application.text(),
            verdict_text(flow.record()),
            rate_text(now.up),
            rate_text(now.down),
            size_text(flow.up.bytes),
            size_text(flow.down.bytes),
            std::to_string(flow.dropped.denied + flow.dropped.limited),
            flow.has_ended() ? flow.ended().text() : flow.manner.value().gate.text()};
}

line_style listing::style(size_t row) const {
    if (wanted_.kind != list_kind::flows) {
        const flow_sum *sum = sum_with(keys_[row]);
        return sum == nullptr || sum->flows == 0 ? line_style::faded : line_style::plain;
    }
    const watched_flow *flow = shown_.flow(numbers_[row]);
    if (flow == nullptr || flow->has_ended())
        return line_style::faded;
    return flow->verdict().text() == DENIED ? line_style::denied : line_style::plain;
}

} // namespace avwatch
