#include "avwatch/present/flow_sums.h"

#include <algorithm>
#include <functional>
#include <initializer_list>

namespace avwatch {
namespace {

constexpr size_t RATE_SECONDS = 3;
constexpr int64_t IDLE_MAX_MS = int64_t{COURSE_SECONDS} * 1'000;
constexpr uint64_t CHOICE_TICKS = 10;
constexpr double WEIGHT_LEFT = 0.995; // of a second's bytes in the next one, to rank by
constexpr uint64_t COUNT_MAX = 1ULL << 60;

uint64_t plus(uint64_t sum, uint64_t more) {
    return std::min(sum + std::min(more, COUNT_MAX), COUNT_MAX);
}

uint64_t minus(uint64_t sum, uint64_t less) {
    return sum - std::min(sum, less);
}

template <typename Changed>
void change(flow_sum &sum, const flow_counts_growth &by, const Changed &changed) {
    sum.up = {changed(sum.up.packets, by.up.packets), changed(sum.up.bytes, by.up.bytes)};
    sum.down = {changed(sum.down.packets, by.down.packets), changed(sum.down.bytes, by.down.bytes)};
    sum.dropped = {changed(sum.dropped.denied, by.dropped.denied),
                   changed(sum.dropped.limited, by.dropped.limited)};
}

} // namespace

struct flow_sums::kept_sum : flow_sum {
    uint64_t up_since = 0, down_since = 0; // bytes since the last tick
    std::array<traffic_rates, RATE_SECONDS> latest = {};
    double weight = 0;
    int64_t idle_ms = 0; // without a flow
    std::unique_ptr<std::array<traffic_rates, COURSE_SECONDS>> course;

    // What has grown since the last one.
    traffic_rates rates(int64_t elapsed_ms) const {
        const auto seconds = static_cast<float>(std::max<int64_t>(elapsed_ms, 1)) / 1'000;
        return {static_cast<float>(up_since) / seconds, static_cast<float>(down_since) / seconds};
    }

    void tick(const traffic_rates &fresh, uint64_t ticks) {
        weight = weight * WEIGHT_LEFT + static_cast<double>(up_since + down_since);
        up_since = down_since = 0;
        latest[static_cast<size_t>(ticks % RATE_SECONDS)] = fresh;
        now = {};
        for (const traffic_rates &each : latest) {
            now.up += each.up / RATE_SECONDS;
            now.down += each.down / RATE_SECONDS;
        }
    }

    void forget_rates() {
        up_since = down_since = 0;
        latest = {};
        now = {};
    }
};

flow_sums::flow_sums() {
    made({sum_kind::all, {}});
}

flow_sums::~flow_sums() = default;

std::array<flow_sums::key, 4> flow_sums::keys_of(const owner &whose) {
    return {key{sum_kind::all, {}}, key{sum_kind::client, {whose.client, {}}},
            key{sum_kind::application, {{}, whose.application}},
            key{sum_kind::client_application, whose}};
}

flow_sums::kept_sum *flow_sums::kept(const key &wanted) const {
    const auto found = sums_.find(wanted);
    return found != sums_.end() ? found->second.get() : nullptr;
}

flow_sums::kept_sum *flow_sums::made(const key &wanted) {
    if (kept_sum *there = kept(wanted))
        return there;
    is_full_ = sums_.size() >= SUMS_MAX;
    if (is_full_)
        return nullptr;
    auto sum = std::make_unique<kept_sum>();
    sum->kind = wanted.kind;
    sum->client = wanted.whose.client;
    sum->application = wanted.whose.application;
    if (wanted.kind == sum_kind::client_application)
        add_pair(wanted.whose, 1);
    else if (wanted.kind == sum_kind::all || courses_ < COURSES_MAX)
        give_course(*sum);
    return sums_.emplace(wanted, std::move(sum)).first->second.get();
}

void flow_sums::add_pair(const owner &whose, int more) {
    for (const key &side : {key{sum_kind::client, {whose.client, {}}},
                            key{sum_kind::application, {{}, whose.application}}}) {
        kept_sum *sum = kept(side);
        if (sum != nullptr && (more > 0 || sum->pairs > 0))
            sum->pairs += static_cast<uint64_t>(static_cast<int64_t>(more));
    }
}

void flow_sums::give_course(kept_sum &sum) {
    sum.course = std::make_unique<std::array<traffic_rates, COURSE_SECONDS>>();
    sum.course->fill(UNKNOWN_RATES);
    ++courses_;
}

void flow_sums::grow(const owner &whose, const flow_counts_growth &more, uint64_t last_us,
                     bool is_now) {
    for (const key &each : keys_of(whose)) {
        kept_sum *sum = made(each);
        if (sum == nullptr)
            continue;
        change(*sum, more, plus);
        sum->last_us = std::max(sum->last_us, last_us);
        if (is_now) {
            sum->up_since = plus(sum->up_since, more.up.bytes);
            sum->down_since = plus(sum->down_since, more.down.bytes);
        }
    }
}

void flow_sums::open_flow(const owner &whose) {
    for (const key &each : keys_of(whose)) {
        if (kept_sum *sum = made(each))
            ++sum->flows;
    }
}

// A sum for which there was no room when the flow came hasn't counted it.
void flow_sums::close_flow(const owner &whose) {
    for (const key &each : keys_of(whose)) {
        kept_sum *sum = kept(each);
        if (sum != nullptr && sum->flows > 0)
            --sum->flows;
    }
}

void flow_sums::move_flow(const owner &from, const owner &to, const flow_counts_growth &counted,
                          uint64_t last_us) {
    for (const key &each : keys_of(from)) {
        if (kept_sum *sum = kept(each))
            change(*sum, counted, minus);
    }
    close_flow(from);
    open_flow(to);
    grow(to, counted, last_us, false);
}

// A tick that comes late is one of several seconds, over which what has grown is spread.
void flow_sums::tick(int64_t elapsed_ms, bool is_told) {
    const auto passed =
        static_cast<size_t>(std::clamp<int64_t>((elapsed_ms + 500) / 1'000, 1, COURSE_SECONDS));
    for (const auto &[each, sum] : sums_) {
        const traffic_rates rates = is_told ? sum->rates(elapsed_ms) : UNKNOWN_RATES;
        for (size_t i = 1; sum->course && i <= passed; ++i)
            (*sum->course)[(place_ + i) % COURSE_SECONDS] = rates;
        if (is_told)
            sum->tick(rates, ticks_);
        else
            sum->forget_rates();
        sum->idle_ms = sum->flows == 0 ? sum->idle_ms + elapsed_ms : 0;
    }
    place_ = (place_ + passed) % COURSE_SECONDS;
    if (++ticks_ % CHOICE_TICKS == 0)
        choose_courses();
    forget_idle(is_full_ ? 0 : IDLE_MAX_MS);
    is_full_ = false;
}

// Who takes most has a course. One that is new, or comes back, begins with what isn't known.
void flow_sums::choose_courses() {
    std::vector<kept_sum *> ranked;
    for (const auto &[each, sum] : sums_) {
        if (each.kind == sum_kind::client || each.kind == sum_kind::application)
            ranked.push_back(sum.get());
    }
    const size_t most = std::min(ranked.size(), COURSES_MAX - 1); // one is of all
    std::ranges::nth_element(ranked, ranked.begin() + static_cast<std::ptrdiff_t>(most),
                             std::greater(), &kept_sum::weight);
    for (size_t i = most; i < ranked.size(); ++i) {
        if (ranked[i]->course) {
            ranked[i]->course.reset();
            --courses_;
        }
    }
    for (size_t i = 0; i < most; ++i) {
        if (!ranked[i]->course)
            give_course(*ranked[i]);
    }
}

void flow_sums::forget_idle(int64_t idle_ms_max) {
    for (auto at = sums_.begin(); at != sums_.end();) {
        const kept_sum &sum = *at->second;
        if (sum.kind == sum_kind::all || sum.flows != 0 || sum.idle_ms <= idle_ms_max) {
            ++at;
            continue;
        }
        if (sum.kind == sum_kind::client_application)
            add_pair(at->first.whose, -1);
        if (sum.course)
            --courses_;
        at = sums_.erase(at);
    }
}

const flow_sum *flow_sums::find(sum_kind kind, const owner &whose) const {
    return kept({kind, whose});
}

std::vector<const flow_sum *> flow_sums::of(sum_kind kind, const shared_text *client,
                                            const shared_text *application) const {
    std::vector<const flow_sum *> found;
    for (const auto &[each, sum] : sums_) {
        if (each.kind == kind && (client == nullptr || each.whose.client == *client) &&
            (application == nullptr || each.whose.application == *application))
            found.push_back(sum.get());
    }
    return found;
}

std::vector<traffic_rates> flow_sums::course(const flow_sum &sum) const {
    std::vector<traffic_rates> rates;
    const kept_sum *found = kept({sum.kind, {sum.client, sum.application}});
    if (found == nullptr || !found->course)
        return rates;
    rates.reserve(COURSE_SECONDS);
    for (size_t i = 1; i <= COURSE_SECONDS; ++i)
        rates.push_back((*found->course)[(place_ + i) % COURSE_SECONDS]);
    return rates;
}

} // namespace avwatch
