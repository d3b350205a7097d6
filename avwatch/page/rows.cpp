#include "avwatch/page/rows.h"

#include "avcore/base/host_text.h"
#include "avwatch/base/addresses.h"
#include "avwatch/present/flow_cells.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <nlohmann/json.hpp>
#include <string_view>
#include <strings.h>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

namespace avwatch {
namespace {

using nlohmann::ordered_json;

constexpr std::pair<std::string_view, page_table> TABLES[] = {
    {"clients", page_table::clients},
    {"applications", page_table::applications},
    {"flows", page_table::flows},
    {"denials", page_table::denials},
    {"events", page_table::events}};
constexpr std::pair<std::string_view, page_order> ORDERS[] = {
    {"rate", page_order::rate},       {"bytes", page_order::bytes}, {"flows", page_order::flows},
    {"dropped", page_order::dropped}, {"begun", page_order::begun}, {"last", page_order::last},
    {"name", page_order::name}};

template <typename Value, size_t N>
Value value_of(const page_request &asked, const char *argument,
               const std::pair<std::string_view, Value> (&words)[N], Value otherwise) {
    const std::string word = asked.argument(argument);
    if (word.empty())
        return otherwise;
    for (const auto &[name, value] : words) {
        if (word == name)
            return value;
    }
    throw bad_query{std::string(argument) + " isn't one that is known here"};
}

size_t number_of(const page_request &asked, const char *argument, size_t otherwise) {
    const std::string text = asked.argument(argument);
    if (text.empty())
        return otherwise;
    size_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        throw bad_query{std::string(argument) + " isn't a number"};
    return number;
}

bool contains(std::string_view text, std::string_view small_part) {
    const auto is_same = [](char a, char b) {
        return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
    };
    return std::search(text.begin(), text.end(), small_part.begin(), small_part.end(), is_same) !=
           text.end();
}

uint64_t whole(float rate) {
    constexpr float most = 1e18F;
    return static_cast<uint64_t>(std::clamp(rate, 0.0F, most));
}

uint64_t bytes_of(const traffic &up, const traffic &down) {
    return up.bytes + down.bytes;
}

uint64_t packets_of(const dropped_packets &dropped) {
    return dropped.denied + dropped.limited;
}

// By what a row is ordered: the larger weight first, then by name.
struct weighed {
    double weight = 0;
    std::string_view name;
    size_t row = 0;

    bool operator<(const weighed &other) const {
        return std::tuple(-weight, name, row) < std::tuple(-other.weight, other.name, other.row);
    }
};

template <typename Row>
double amount_of(const Row &row, page_order order) {
    switch (order) {
    case page_order::bytes:
        return static_cast<double>(bytes_of(row.up, row.down));
    case page_order::dropped:
        return static_cast<double>(packets_of(row.dropped));
    case page_order::last:
        return static_cast<double>(row.last_us);
    default:
        return 0;
    }
}

// The same of flows, of which there may be many.
struct weighed_flow {
    double weight = 0;
    const watched_flow *flow = nullptr;
};

// What a text takes in an answer, which is ASCII.
size_t told_bytes(std::string_view text) {
    size_t bytes = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        bytes += byte < ' ' || byte == 0x7f ? 6 : byte > 0x7f ? 3 : c == '"' || c == '\\' ? 2 : 1;
    }
    return bytes;
}

void cut_texts(ordered_json &row, size_t &left) {
    constexpr size_t short_text = 48;
    for (ordered_json &member : row) {
        if (!member.is_string())
            continue;
        auto &text = member.get_ref<std::string &>();
        if (told_bytes(text) > left && text.size() > short_text) {
            size_t end = short_text;
            while ((static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
                --end;
            text = text.substr(0, end) + "...";
        }
        left -= std::min(left, told_bytes(text));
    }
}

// The rows of a query's window, as an answer's first members say where it lies.
template <typename Weighed, typename Before, typename MakeRow>
ordered_json window(std::vector<Weighed> rows, const rows_query &query, const Before &is_before,
                    const MakeRow &make_row) {
    const size_t first = std::min(query.first, rows.size());
    const size_t last = first + std::min(query.rows, rows.size() - first);
    const auto before = [&](const Weighed &a, const Weighed &b) {
        return query.is_reversed ? is_before(b, a) : is_before(a, b);
    };
    std::partial_sort(rows.begin(), rows.begin() + static_cast<ptrdiff_t>(last), rows.end(),
                      before);
    ordered_json shown = ordered_json::array();
    size_t left = rows_query::ANSWER_BYTES;
    for (size_t i = first; i < last; ++i) {
        shown.push_back(make_row(rows[i]));
        cut_texts(shown.back(), left);
    }
    return {{"total", rows.size()}, {"first", first}, {"rows", std::move(shown)}};
}

void put_amounts(ordered_json &object, const traffic &up, const traffic &down,
                 const dropped_packets &dropped, uint64_t last_us) {
    object["up"] = {up.packets, up.bytes};
    object["down"] = {down.packets, down.bytes};
    object["dropped"] = {dropped.denied, dropped.limited};
    object["last_us"] = last_us;
}

void put_rates(ordered_json &object, const traffic_rates &rates) {
    object["up_rate"] = whole(rates.up);
    object["down_rate"] = whole(rates.down);
}

bool client_has(const known_clients &clients, const std::string &key, std::string_view part) {
    if (contains(key, part) || contains(clients.name_of(key), part))
        return true;
    const known_client *known = clients.with_key(key);
    return known != nullptr && std::ranges::any_of(known->said.addresses, [&](const auto &address) {
               return contains(address, part);
           });
}

ordered_json client_row(const present &now, const flow_sum &sum) {
    const std::string &key = sum.client.text();
    ordered_json row = {{"client", key}, {"name", now.clients().name_of(key)}};
    if (const known_client *known = now.clients().with_key(key)) {
        row["addresses"] = known->said.addresses;
        row["interface"] = known->said.interface;
        row["utp"] = known->said.utp;
    }
    put_sum(row, sum);
    return row;
}

ordered_json application_row(const flow_sum &sum) {
    ordered_json row = {{"application", sum.application.text()}};
    put_sum(row, sum);
    return row;
}

// What says of a flow what else would decide; nothing of one that isn't IP's. No host's name stands
// in it: nothing that a shell would take for its own.
std::string question_about(const flow_record &flow) {
    if (!canonical_address(flow.client) || !canonical_address(flow.server))
        return {};
    std::string line =
        "avwatch why " + flow.client + ' ' + endpoint_text(flow.server, flow.server_port);
    for (const char *protocol : {"tcp", "udp"}) {
        if (avcore::lower_case(flow.protocol) == protocol)
            line += std::string(" --protocol ") + protocol;
    }
    return line;
}

ordered_json flow_row(const present &now, const watched_flow &flow, const traffic_rates &rates) {
    const flow_record record = flow.record();
    ordered_json row = {{"id", flow.id()},
                        {"client", flow.client_key.text()},
                        {"name", now.clients().name_of(flow.client_key.text())},
                        {"from", endpoint_text(record.client, record.client_port)},
                        {"server", endpoint_text(record.server, record.server_port)},
                        {"protocol", record.protocol},
                        {"application", record.application},
                        {"host", record.host},
                        {"verdict", verdict_text(record)},
                        {"gate", record.gate},
                        {"ended", record.ended},
                        {"why", reason_text(record.why)},
                        {"ask", question_about(record)},
                        {"begun_us", record.begun_us}};
    put_rates(row, rates);
    put_amounts(row, record.up, record.down, record.dropped, record.last_us);
    return row;
}

std::vector<const flow_sum *> sums_of(const present &now, const rows_query &query) {
    if (query.table == page_table::clients)
        return query.chosen.application ? now.clients_of(*query.chosen.application)
                                        : now.clients_used();
    return query.chosen.client ? now.applications_of(*query.chosen.client)
                               : now.applications_used();
}

ordered_json sum_rows(const present &now, const rows_query &query) {
    const bool is_client = query.table == page_table::clients;
    const std::vector<const flow_sum *> sums = sums_of(now, query);
    std::vector<std::string> names; // in small letters
    std::vector<weighed> rows;
    names.reserve(sums.size());
    for (size_t i = 0; i < sums.size(); ++i) {
        const flow_sum &sum = *sums[i];
        const std::string &key = is_client ? sum.client.text() : sum.application.text();
        if (!query.part.empty() &&
            !(is_client ? client_has(now.clients(), key, query.part) : contains(key, query.part)))
            continue;
        double weight = amount_of(sum, query.order);
        if (query.order == page_order::rate)
            weight = static_cast<double>(sum.now.both());
        else if (query.order == page_order::flows)
            weight = static_cast<double>(sum.flows);
        const std::string name = is_client ? now.clients().name_of(key) : key;
        names.push_back(avcore::lower_case(name.empty() ? key : name));
        rows.push_back({weight, names.back(), i});
    }
    return window(std::move(rows), query, std::less(), [&](const weighed &each) {
        return is_client ? client_row(now, *sums[each.row]) : application_row(*sums[each.row]);
    });
}

// Which flows of a choice have a part in one of their names. Clients are looked through once, not
// for each of their flows.
class flow_search {
public:
    flow_search(const present &now, const rows_query &query) : query_(query) {
        if (query.part.empty())
            return;
        for (const flow_sum *each : now.clients_used()) {
            if (client_has(now.clients(), each->client.text(), query.part))
                clients_.insert(each->client.text());
        }
    }

    bool fits(const watched_flow &flow) const {
        if (!query_.verdict.empty() && flow.verdict().text() != query_.verdict)
            return false;
        return query_.part.empty() || clients_.contains(flow.client_key.text()) ||
               contains(flow.application.text(), query_.part) ||
               contains(flow.host.text(), query_.part) ||
               contains(flow.client.text(), query_.part) ||
               contains(flow.server.text(), query_.part);
    }

private:
    const rows_query &query_;
    std::unordered_set<std::string_view> clients_;
};

ordered_json flow_rows(const present &now, const rows_query &query, int64_t now_ms) {
    const flow_search search(now, query);
    std::vector<weighed_flow> rows;
    for (const watched_flow *flow : now.flows(query.chosen)) {
        if (!search.fits(*flow))
            continue;
        double weight = amount_of(*flow, query.order);
        if (query.order == page_order::rate)
            weight = static_cast<double>(now.rates_of(*flow, now_ms).both());
        else if (query.order == page_order::begun)
            weight = static_cast<double>(flow->begun_us);
        rows.push_back({weight, flow});
    }
    const auto is_before = [&](const weighed_flow &a, const weighed_flow &b) {
        if (a.weight != b.weight)
            return a.weight > b.weight;
        const int order =
            query.order == page_order::name
                ? strcasecmp(a.flow->application.text().c_str(), b.flow->application.text().c_str())
                : 0;
        return order != 0 ? order < 0 : a.flow->number < b.flow->number;
    };
    return window(std::move(rows), query, is_before, [&](const weighed_flow &each) {
        return flow_row(now, *each.flow, now.rates_of(*each.flow, now_ms));
    });
}

// In the order in which they were made, the latest first.
ordered_json denial_rows(const present &now, const rows_query &query) {
    const flow_search search(now, query);
    const auto is_of = [](const std::optional<std::string> &chosen, const shared_text &text) {
        return !chosen || *chosen == text.text();
    };
    std::vector<weighed> rows;
    for (size_t i = 0; i < now.denials().size(); ++i) {
        const denial &each = now.denials()[i];
        if (is_of(query.chosen.client, each.flow.client_key) &&
            is_of(query.chosen.application, each.flow.application) && search.fits(each.flow))
            rows.push_back({static_cast<double>(each.number), {}, i});
    }
    return window(std::move(rows), query, std::less(), [&](const weighed &shown) {
        const denial &each = now.denials()[shown.row];
        ordered_json row = flow_row(now, each.flow, {});
        row["number"] = each.number;
        row["us"] = each.us;
        return row;
    });
}

// What happened to no flow, the latest first.
ordered_json event_rows(const present &now, const rows_query &query) {
    std::vector<weighed> rows;
    for (size_t i = 0; i < now.notices().size(); ++i) {
        const notice &each = now.notices()[i];
        if (contains(each.what + ' ' + each.state + ' ' + each.interface, query.part))
            rows.push_back({static_cast<double>(each.number), {}, i});
    }
    return window(std::move(rows), query, std::less(), [&](const weighed &shown) {
        const notice &each = now.notices()[shown.row];
        return ordered_json{{"number", each.number},
                            {"us", each.us},
                            {"what", each.what},
                            {"state", each.state},
                            {"interface", each.interface}};
    });
}

} // namespace

flow_choice choice_of(const page_request &asked) {
    const auto chosen = [&](const char *name) {
        const auto found = asked.arguments.find(name);
        if (found != asked.arguments.end() && found->second.size() > 4 * rows_query::TEXT_MAX)
            throw bad_query{std::string(name) + " is too long"};
        return found != asked.arguments.end() ? std::optional(found->second) : std::nullopt;
    };
    return {chosen("client"), chosen("application")};
}

rows_query rows_query_of(const page_request &asked) {
    rows_query query;
    query.table = value_of(asked, "table", TABLES, query.table);
    query.order = value_of(asked, "order", ORDERS, query.order);
    query.is_reversed = asked.argument("reversed") == "1";
    query.chosen = choice_of(asked);
    query.verdict = asked.argument("verdict");
    query.part = avcore::lower_case(asked.argument("part"));
    if (query.part.size() > rows_query::TEXT_MAX || query.verdict.size() > rows_query::TEXT_MAX)
        throw bad_query{"that is too long to look for"};
    query.first = number_of(asked, "first", 0);
    query.rows = std::min(number_of(asked, "rows", query.rows), rows_query::ROWS_MAX);
    return query;
}

ordered_json rows_of(const present &now, const rows_query &query, int64_t now_ms) {
    switch (query.table) {
    case page_table::flows:
        return flow_rows(now, query, now_ms);
    case page_table::denials:
        return denial_rows(now, query);
    case page_table::events:
        return event_rows(now, query);
    default:
        return sum_rows(now, query);
    }
}

ordered_json whole_flow(const present &now, const watched_flow &flow, int64_t now_ms) {
    ordered_json object = object_of(flow.record());
    object["client_key"] = flow.client_key.text();
    object["client_name"] = now.clients().name_of(flow.client_key.text());
    put_rates(object, now.rates_of(flow, now_ms));
    return object;
}

void put_sum(ordered_json &object, const flow_sum &sum) {
    object["flows"] = sum.flows;
    object["pairs"] = sum.pairs;
    put_rates(object, sum.now);
    put_amounts(object, sum.up, sum.down, sum.dropped, sum.last_us);
}

} // namespace avwatch
