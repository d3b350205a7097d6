// What a browser, or who plays one, asks of the page behind what a watch socket told: who may not
// look is told nothing, other sites' pages aren't answered, and what is said is whole, bounded, and
// reaches no header.
//
// An input is lines: messages of the watch socket, as they come there; "tick", a second that
// passes; "crowd", more flows than an answer has rows, with long names and more addresses than a
// client has; "names domain" and "names none", at the start; "GET " or "HEAD ", a path and
// arguments, with lines for headers behind it, "Elsewhere:" where it isn't loopback that asks.
// {pass} in a header and {ticket} in an argument stand for good ones.
#include "avwatch/page/page.h"
#include "avcore/base/host_text.h"
#include "avcore/base/monotonic_clock.h"
#include "avwatch/client/messages.h"
#include "avwatch/history/ledger.h"
#include "avwatch/history/store.h"
#include "avwatch/page/tickets.h"
#include "demand.h"
#include "shared/json_text.h"
#include "support/saved_folder.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace {

using namespace avwatch;
using nlohmann::json;

constexpr char TOKEN[] = "0123456789abcdef";
constexpr std::string_view GOOD_PASS = "{pass}";
constexpr std::string_view GOOD_TICKET = "{ticket}";
constexpr char HIDDEN[] = "not-for-strangers"; // in names that the present always has
constexpr size_t BODY_MAX = 1'300'000; // the texts' 256 kB, and 200 rows whose texts were cut
constexpr size_t ROWS_MAX = 200;
constexpr size_t ADDRESSES_MAX = 64; // of a client

flow_record flow_named(size_t number, const std::string &name) {
    flow_record made;
    made.id = std::to_string(number);
    made.client = "2001:db8::" + std::to_string(number % 1'000);
    made.client_mac = number % 2 != 0 ? "02:00:00:00:00:01" : "";
    made.server = "192.0.2.1";
    made.protocol = "TCP";
    made.application = made.host = made.gate = made.why.text = made.why.name = name;
    made.verdict = DENIED;
    made.down = {1, uint64_t{number} << 40};
    return made;
}

// The same for all inputs. The file is what `serve` would have left.
const std::string &history_file() {
    static const saved_folder folder;
    static const std::string file = folder.path_of("history.db");
    static const bool is_made = [] {
        history_settings settings;
        settings.file = file;
        store kept(settings);
        ledger flows(settings.names);
        for (const char *name : {HIDDEN, "\"\\\x01", ""}) {
            flow_message sum;
            sum.client_mac = "02:00:00:00:00:01";
            sum.application = name;
            sum.counts[DOWN_BYTES] = uint64_t{1} << 62;
            flows.take_sum(sum, 1);
        }
        kept.write(flows, time(nullptr), 1);
        return true;
    }();
    demand(is_made);
    return file;
}

// Who takes messages as `watcher` does.
class told_present {
public:
    explicit told_present(names_kept names) : now(aliases(), names, 1'000) {
        now.connected({});
        now.take(flow_named(0, HIDDEN), now_ms_);
        (*this)(event_record{"denied", 1, flow_named(1, HIDDEN), "", ""});
        (*this)(event_record{"gate", 1, {}, HIDDEN, ""});
    }

    void operator()(const flow_record &flow) { now.take(flow, now_ms_); }
    void operator()(const count_record &count) { now.take(count, now_ms_); }
    void operator()(const sum_record &sum) { now.take(sum); }
    void operator()(const event_record &event) { now.take(event); }
    void operator()(const gate_state &gate) { now.take(gate); }
    void operator()(const lost_events &lost) { now.lost(lost); }
    void operator()(const listing_end & /*end*/) { now.listed(); }
    void operator()(const client_record &client) { clients_.push_back(client); }
    void operator()(const answer_end & /*end*/) { now.take_clients(std::exchange(clients_, {})); }
    void operator()(const auto & /*other*/) {}

    void tell(std::string_view line) {
        const std::optional<json> parsed = parse_line(line);
        if (const auto said = parsed ? message_of(*parsed) : std::nullopt)
            std::visit(*this, said->what);
        else if (const auto greeting = parsed ? greeting_of(*parsed) : std::nullopt)
            now.connected(*greeting);
    }

    void tick() { now.tick(now_ms_ += 1'000); }

    void crowd() {
        if (std::exchange(is_crowded_, true))
            return; // once takes long enough
        for (size_t i = 0; i < ROWS_MAX + 1; ++i) {
            const std::string name = std::to_string(i) + std::string(1'000, '\x01');
            now.take(flow_named(i, name), now_ms_);
            client_record client;
            client.client_mac = "02:00:00:00:00:01";
            for (size_t j = 0; j < 8; ++j)
                client.addresses.push_back("2001:db8::" + std::to_string(i) + ':' +
                                           std::to_string(j));
            client.host_name = name;
            (*this)(client);
        }
        (*this)(answer_end());
    }

    present now;

private:
    static client_aliases aliases() { return {{"<b>tv\"", "02:00:00:00:00:01"}}; }

    bool is_crowded_ = false;
    int64_t now_ms_ = avcore::monotonic_ms();
    std::vector<client_record> clients_;
};

std::string with(std::string text, std::string_view mark, const std::string &value) {
    const size_t at = text.find(mark);
    return at != std::string::npos ? text.replace(at, mark.size(), value) : text;
}

constexpr struct {
    std::string_view name;
    std::string page_request::*text;
} HEADERS[] = {
    {"Host: ", &page_request::host},
    {"Origin: ", &page_request::origin},
    {"Authorization: ", &page_request::authorization},
    {"Cookie: ", &page_request::cookie},
    {"Sec-Fetch-Site: ", &page_request::fetch_site},
    {"Sec-Fetch-Mode: ", &page_request::fetch_mode},
    {"Sec-Fetch-Dest: ", &page_request::fetch_dest},
};

struct request_read : page_request {
    bool has_pass = false, has_ticket = false;

    explicit request_read(std::string_view line) {
        is_head = line.starts_with("HEAD ");
        is_from_loopback = true;
        host = "localhost";
        line.remove_prefix(line.find(' ') + 1);
        const size_t mark = std::min(line.find('?'), line.size());
        path = line.substr(0, mark);
        line.remove_prefix(std::min(mark + 1, line.size()));
        while (!line.empty()) {
            const std::string_view each = line.substr(0, line.find('&'));
            const size_t equals = std::min(each.find('='), each.size());
            const std::string value(each.substr(std::min(equals + 1, each.size())));
            has_ticket |= value.find(GOOD_TICKET) != std::string::npos;
            arguments.emplace(each.substr(0, equals),
                              with(value, GOOD_TICKET, make_ticket(TOKEN, time(nullptr))));
            line.remove_prefix(std::min(each.size() + 1, line.size()));
        }
    }

    void add_header(std::string_view line) {
        if (line == "Elsewhere:")
            is_from_loopback = false;
        for (const auto &[name, text] : HEADERS) {
            if (!line.starts_with(name))
                continue;
            const std::string value(line.substr(name.size()));
            has_pass |= value.find(GOOD_PASS) != std::string::npos;
            this->*text = with(value, GOOD_PASS, make_pass(TOKEN, time(nullptr)));
        }
    }
};

// Said in other words than the page's own.
bool may_look(const request_read &asked) {
    return asked.is_from_loopback || asked.has_pass ||
           avcore::lower_case(asked.authorization) == std::string("bearer ") + TOKEN;
}

bool is_for_us(const request_read &asked) {
    const std::string host = avcore::lower_case(asked.host);
    std::string_view name = host;
    const bool is_ipv6 = name.starts_with('[');
    name = name.substr(0, is_ipv6 ? name.find(']') : name.find(':'));
    const bool is_named = name == "localhost" || name == "localhost." || name == "ap.example" ||
                          name == "ap.example.";
    return is_ipv6 || is_named ||
           (!name.empty() && name.find_first_not_of("0123456789.") == std::string::npos);
}

bool is_by_us(const request_read &asked) {
    const bool is_page = asked.path == "/" || asked.path == "/enter";
    const bool is_ours = asked.fetch_site.empty() || asked.fetch_site == "none" ||
                         asked.fetch_site == "same-origin" || is_page;
    return is_ours && (asked.origin.empty() || avcore::lower_case(asked.origin) ==
                                                   "http://" + avcore::lower_case(asked.host));
}

void check_who(const request_read &asked, const page_reply &reply) {
    const bool is_answered = reply.status == 200;
    const bool is_entry = asked.path == "/enter" && !asked.is_head && asked.has_ticket;
    demand(!is_answered || (is_for_us(asked) && is_by_us(asked)));
    demand(!is_answered || may_look(asked) || is_entry);
    demand(reply.status != 401 || !asked.is_from_loopback);
    if (!is_answered || !may_look(asked))
        demand(!reply.events && reply.body.find(HIDDEN) == std::string::npos);
    const auto gives_pass = std::ranges::count(reply.headers, std::string_view("Set-Cookie"),
                                               [](const auto &each) { return each.first; });
    demand(gives_pass == (is_answered && is_entry ? 1 : 0));
}

void check_headers(const page_reply &reply) {
    const auto is_line = [](std::string_view text) {
        return std::ranges::all_of(text, [](char c) { return c >= ' ' && c < 0x7F; });
    };
    demand(is_line(reply.type));
    for (const auto &[name, value] : reply.headers)
        demand(is_line(name) && is_line(value));
    demand(std::ranges::any_of(reply.headers, [](const auto &each) {
        return std::string_view(each.first) == "Content-Security-Policy";
    }));
}

// The one value that a line of JSON has.
json checked_line(std::string_view text) {
    demand(text.size() <= BODY_MAX && text.ends_with('\n'));
    text.remove_suffix(1);
    demand(std::ranges::all_of(text, [](char c) { return c >= ' ' && c < 0x7F; }));
    json value = read_json(text);
    demand(!value.is_discarded());
    return value;
}

void check_table(const json &table) {
    const size_t total = table["total"], first = table["first"], rows = table["rows"].size();
    demand(first <= total && rows <= std::min(total - first, ROWS_MAX));
}

void check_events(event_source &told) {
    const std::shared_ptr<const std::string> text = told.next();
    demand(text->starts_with("data: ") && text->ends_with("\n\n"));
    const json state = checked_line(std::string_view(*text).substr(6, text->size() - 7));
    check_table(state["table"]);
    demand(told.next()->starts_with("data: "));
}

void check_rows(page &shown, const request_read &asked, const json &table) {
    check_table(table);
    for (const json &row : table["rows"])
        demand(!row.contains("addresses") || row["addresses"].size() <= ADDRESSES_MAX);
    if (asked.argument("table") != "flows" || table["rows"].empty())
        return;
    request_read led_to = asked;
    led_to.path = "/api/flow";
    led_to.arguments = {{"id", table["rows"][0]["id"]}};
    const json whole = checked_line(shown.answer(led_to).body);
    demand(whole.is_object() && whole["id"] == table["rows"][0]["id"]);
}

void check_answer(page &shown, const request_read &asked) {
    const page_reply reply = shown.answer(asked);
    check_who(asked, reply);
    check_headers(reply);
    if (reply.events)
        check_events(*reply.events);
    else if (reply.type == "application/json") {
        const json value = checked_line(reply.body);
        demand(reply.status == 200 || value["error"].is_string());
        if (asked.path == "/api/rows" && reply.status == 200)
            check_rows(shown, asked, value);
    }
    if (asked.has_ticket && reply.status == 200)
        demand(asked.path != "/enter" || shown.answer(asked).status == 403); // once only
}

class conversation {
public:
    explicit conversation(names_kept names)
        : told_(names),
          shown_({{"ap.example"}, TOKEN, false},
                 {told_.now, [] { return "gone"; }, [] { return std::string(HIDDEN); },
                  history_file(), names},
                 std::chrono::hours(1)) {}

    void take(std::string_view line) {
        if (line.starts_with("GET ") || line.starts_with("HEAD ")) {
            finish();
            asked_.emplace(line);
        } else if (line == "tick") {
            told_.tick();
        } else if (line == "crowd") {
            told_.crowd();
        } else if (line.starts_with('{')) {
            finish();
            told_.tell(line);
        } else if (asked_) {
            asked_->add_header(line);
        }
    }

    void finish() {
        if (asked_)
            check_answer(shown_, *asked_);
        asked_.reset();
    }

private:
    told_present told_;
    page shown_;
    std::optional<request_read> asked_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    conversation goes_on(text.starts_with("names none")     ? names_kept::none
                         : text.starts_with("names domain") ? names_kept::domain
                                                            : names_kept::full);
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        goes_on.take(line);
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    goes_on.finish();
    return 0;
}
