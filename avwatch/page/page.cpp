#include "avwatch/page/page.h"

#include "avcore/base/monotonic_clock.h"
#include "avwatch/base/units.h"
#include "avwatch/history/schema.h"
#include "avwatch/history/usage.h"
#include "avwatch/page/assets.h"
#include "avwatch/page/rows.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

namespace avwatch {
namespace {

using avcore::monotonic_ms;
using nlohmann::ordered_json;

// The history is read while the same thread has to follow avcore.
constexpr int LOCK_PATIENCE_MS = 100;
constexpr int64_t READING_MS = 300;
// What was made before is said to others, too.
constexpr int64_t VIEW_MS = 900; // less than a reader is told
constexpr int64_t BARS_MS = 5'000;
constexpr size_t BARS_MAX = 16;
constexpr int64_t HOURS_SHOWN_S = 2 * DAY_S;
constexpr int64_t DAYS_SHOWN_S = 60 * DAY_S;

constexpr char METRICS_TYPE[] = "text/plain; version=0.0.4; charset=utf-8";
constexpr char POLICY[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

page_reply json_reply(const ordered_json &object) {
    page_reply reply;
    reply.type = "application/json";
    reply.body = to_line(object) + '\n';
    return reply;
}

page_reply failure(unsigned status, const std::string &text) {
    page_reply reply = json_reply({{"error", text}});
    reply.status = status;
    return reply;
}

uint64_t now_us() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

ordered_json rates_of(const std::vector<traffic_rates> &course, float traffic_rates::*direction) {
    ordered_json rates = ordered_json::array();
    for (const traffic_rates &each : course) {
        const float rate = each.*direction;
        rates.push_back(rate < 0 ? ordered_json() : ordered_json(static_cast<uint64_t>(rate)));
    }
    return rates;
}

// A day has its date, too: where the browser is another day may begin.
ordered_json bars_of(const std::vector<usage_bar> &bars, const usage_query &query) {
    ordered_json rows = ordered_json::array();
    for (const usage_bar &each : bars) {
        const amounts &values = each.values;
        const uint64_t from_us = static_cast<uint64_t>(each.start_s) * 1'000'000;
        rows.push_back({{"from_us", from_us},
                        {"up", {values[UP_PACKETS], values[UP_BYTES]}},
                        {"down", {values[DOWN_PACKETS], values[DOWN_BYTES]}},
                        {"dropped", {values[DENIED_PACKETS], values[LIMITED_PACKETS]}},
                        {"flows", values[FLOWS]},
                        {"denials", values[DENIALS]}});
        if (query.by == grouping::day)
            rows.back()["date"] =
                time_text(from_us, query.utc || each.is_utc_day).substr(0, sizeof "2026-11-26" - 1);
    }
    return rows;
}

} // namespace

// The table that the page shows and the course of what it is about, each second: made once for all
// who look at the same.
class page::view {
public:
    view(const page_sources &sources, rows_query query)
        : sources_(sources), query_(std::move(query)) {}

    const rows_query &query() const { return query_; }

    std::shared_ptr<const std::string> text() {
        const int64_t now_ms = monotonic_ms();
        if (!text_ || now_ms - made_ms_ >= VIEW_MS) {
            text_ = std::make_shared<const std::string>(made(now_ms));
            made_ms_ = now_ms;
        }
        return text_;
    }

private:
    std::string made(int64_t now_ms) const {
        const present &now = sources_.now;
        ordered_json state = {{"us", now_us()}, {"told", now.is_told()}};
        if (!now.is_told())
            state["trouble"] = sources_.trouble();
        state["daemon"] = now.who_decides().daemon;
        state["gate"] = now.who_decides().gate;
        state["left_out"] = now.left_out();
        if (query_.chosen.client)
            state["client_name"] = now.clients().name_of(*query_.chosen.client);
        if (const flow_sum *sum = now.sum(query_.chosen))
            put_sum(state, *sum);
        state["table"] = rows_of(now, query_, now_ms);
        return "data: " + to_line(state) + "\n\n";
    }

    const page_sources &sources_;
    const rows_query query_;
    std::shared_ptr<const std::string> text_;
    int64_t made_ms_ = 0;
};

class page::live : public event_source {
public:
    explicit live(std::shared_ptr<view> shown) : shown_(std::move(shown)) {}
    std::shared_ptr<const std::string> next() override { return shown_->text(); }

private:
    const std::shared_ptr<view> shown_;
};

// What was said of the past; also that it couldn't be read, which took as long.
struct page::told_bars {
    flow_choice chosen;
    bool is_by_day;
    int64_t told_ms;
    unsigned status;
    std::string body;
};

page::page(access_settings who, page_sources sources, work_share::clock::duration most_work)
    : access_(std::move(who)), sources_(std::move(sources)), work_(most_work) {}

page::~page() = default;

std::shared_ptr<page::view> page::view_of(rows_query query) {
    std::erase_if(views_, [](const std::weak_ptr<view> &each) { return each.expired(); });
    for (const std::weak_ptr<view> &each : views_) {
        std::shared_ptr<view> there = each.lock();
        if (there && there->query() == query)
            return there;
    }
    auto made = std::make_shared<view>(sources_, std::move(query));
    views_.push_back(made);
    return made;
}

struct page::route {
    std::string_view path;
    page_reply (page::*answer)(const page_request &asked);
    bool is_for_strangers = false; // it sees for itself who asks
    bool is_work = true;           // of which there is a share
};

const page::route *page::route_to(const std::string &path) {
    static constexpr route routes[] = {
        {"/metrics", &page::metrics, false, false},
        {"/enter", &page::enter, true, false},
        {"/api/rows", &page::rows},
        {"/api/live", &page::live_rows},
        {"/api/course", &page::course},
        {"/api/flow", &page::flow},
        {"/api/history", &page::history},
    };
    const auto *const found = std::ranges::find(routes, path, &route::path);
    return found != std::end(routes) ? found : nullptr;
}

page_reply page::answer(const page_request &asked) {
    page_reply reply = found(asked);
    reply.headers.emplace_back("Content-Security-Policy", POLICY);
    reply.headers.emplace_back("X-Content-Type-Options", "nosniff");
    reply.headers.emplace_back("Referrer-Policy", "no-referrer");
    reply.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
    reply.headers.emplace_back("Cache-Control", "no-store");
    return reply;
}

page_reply page::found(const page_request &asked) {
    const route *chosen = route_to(asked.path);
    const bool is_for_strangers = chosen != nullptr && chosen->is_for_strangers;
    if (auto refused = is_for_strangers ? access_.stranger_refusal(asked)
                                        : access_.refusal(asked, time(nullptr)))
        return std::move(*refused);
    if (chosen != nullptr) {
        try {
            return chosen->is_work ? worked_on(*chosen, asked) : (this->*chosen->answer)(asked);
        } catch (const bad_query &wrong) {
            return failure(400, wrong.text);
        }
    }
    page_reply reply;
    const auto file = std::ranges::find(assets(), asked.path, &asset::path);
    if (file != assets().end()) {
        reply.type = file->type;
        reply.constant_body = file->bytes;
        return reply;
    }
    reply.status = 404;
    reply.body = "there is nothing of that name: the page is at /\n";
    return reply;
}

page_reply page::worked_on(const route &chosen, const page_request &asked) {
    const auto begun = work_share::clock::now();
    if (work_.is_used_up(begun)) {
        page_reply busy = failure(503, "too much is asked for at once: try again");
        busy.headers.emplace_back("Retry-After", "1");
        return busy;
    }
    page_reply reply = (this->*chosen.answer)(asked);
    work_.use(work_share::clock::now() - begun);
    return reply;
}

page_reply page::metrics(const page_request & /*asked*/) {
    page_reply reply;
    reply.type = METRICS_TYPE;
    reply.body = sources_.metrics();
    return reply;
}

page_reply page::enter(const page_request &asked) {
    return access_.enter(asked, time(nullptr));
}

page_reply page::rows(const page_request &asked) {
    return json_reply(rows_of(sources_.now, rows_query_of(asked), monotonic_ms()));
}

page_reply page::live_rows(const page_request &asked) {
    const std::shared_ptr<view> shown = view_of(rows_query_of(asked));
    shown->text(); // here it counts as work
    page_reply reply;
    reply.type = "text/event-stream";
    reply.events = std::make_unique<live>(shown);
    return reply;
}

page_reply page::course(const page_request &asked) {
    const std::vector<traffic_rates> course = sources_.now.course(choice_of(asked));
    return json_reply({{"us", now_us()},
                       {"up", rates_of(course, &traffic_rates::up)},
                       {"down", rates_of(course, &traffic_rates::down)}});
}

page_reply page::flow(const page_request &asked) {
    const watched_flow *flow = sources_.now.flow(asked.argument("id"));
    if (flow == nullptr)
        return json_reply(nullptr); // a browser would note a status as an error
    return json_reply(whole_flow(sources_.now, *flow, monotonic_ms()));
}

page_reply page::history(const page_request &asked) {
    const flow_choice chosen = choice_of(asked);
    const bool is_by_day = asked.argument("by") == "day";
    const int64_t now_ms = monotonic_ms();
    std::erase_if(bars_,
                  [now_ms](const told_bars &each) { return now_ms - each.told_ms >= BARS_MS; });
    auto found = std::ranges::find_if(bars_, [&](const told_bars &each) {
        return each.chosen == chosen && each.is_by_day == is_by_day;
    });
    if (found == bars_.end()) {
        page_reply read = read_history(chosen, is_by_day);
        if (bars_.size() >= BARS_MAX)
            bars_.erase(bars_.begin());
        bars_.push_back({chosen, is_by_day, now_ms, read.status, std::move(read.body)});
        found = std::prev(bars_.end());
    }
    page_reply reply = json_reply(nullptr);
    reply.status = found->status;
    reply.body = found->body;
    return reply;
}

page_reply page::read_history(const flow_choice &chosen, bool is_by_day) const {
    usage_query query;
    query.now_s = time(nullptr);
    query.by = is_by_day ? grouping::day : grouping::hour;
    query.since_s = query.now_s - (query.by == grouping::day ? DAYS_SHOWN_S : HOURS_SHOWN_S);
    query.utc = sources_.utc;
    query.names = sources_.names;
    query.client = chosen.client.value_or("");
    if (chosen.application)
        query.application = chosen.application->empty() ? UNNAMED : *chosen.application;
    try {
        database file(sources_.history_file, database::access::read_only, LOCK_PATIENCE_MS);
        check_history(file);
        file.give_up_after(READING_MS);
        return json_reply({{"bars", bars_of(read_bars(file, query), query)}});
    } catch (const database_error &error) {
        if (error.code == SQLITE_INTERRUPT)
            return failure(503, "there is too much of that to be read now: \"avwatch usage\" does");
        return failure(503, error.what());
    } catch (const foreign_history &error) {
        return failure(503, error.what());
    }
}

} // namespace avwatch
