#include "avwatch/history/application_numbers.h"

#include <utility>

namespace avwatch {
namespace {

constexpr int64_t DAY_MS = 86'400'000;

} // namespace

void application_numbers::restore(application_name name, const row &stored) {
    const auto [at, is_new] = rows_.try_emplace(std::move(name), stored);
    if (!is_new)
        return;
    by_number_[stored.number] = &*at;
    turn_ = std::max(turn_, stored.turn);
    set_next(stored.number + 1);
}

void application_numbers::pass(int64_t now_ms) {
    if (now_ms < turn_due_ms_)
        return;
    if (turn_due_ms_ != 0)
        begin_turn();
    turn_due_ms_ = now_ms + DAY_MS;
}

uint32_t application_numbers::number_of(const application_name &name) {
    if (name.text.empty())
        return UNNAMED_NUMBER;
    auto at = rows_.find(name);
    if (at == rows_.end()) {
        if ((rows_.size() >= MAX && !make_room()) || next_ == UINT32_MAX)
            return OTHER_NUMBER;
        at = rows_.try_emplace(name, row{next_++, turn_}).first;
        by_number_[at->second.number] = &*at;
        unwritten_.insert(&*at);
    }
    use(*at);
    return at->second.number;
}

bool application_numbers::use(uint32_t number) {
    if (number < FIRST)
        return true;
    const auto found = by_number_.find(number);
    if (found == by_number_.end() || number >= reserved_below_)
        return false;
    use(*found->second);
    return true;
}

void application_numbers::use(row_map::value_type &of) {
    if (std::exchange(of.second.turn, turn_) != turn_)
        unwritten_.insert(&of);
}

const application_name *application_numbers::name_of(uint32_t number) const {
    const auto found = by_number_.find(number);
    return found != by_number_.end() ? &found->second->first : nullptr;
}

void application_numbers::written() {
    unwritten_.clear();
    forgotten_.clear();
}

void application_numbers::forget_rows() {
    for (auto &each : rows_)
        unwritten_.insert(&each);
    forgotten_.clear();
}

// Of one turn the latest go first: who makes up names pushes out his own.
bool application_numbers::make_room() {
    if (full_in_turn_ == turn_)
        return false;
    std::vector<row_map::iterator> unused;
    for (auto at = rows_.begin(); at != rows_.end(); ++at) {
        if (at->second.turn != turn_)
            unused.push_back(at);
    }
    if (unused.empty()) {
        full_in_turn_ = turn_;
        return false;
    }
    const size_t count = std::min(ROOM, unused.size());
    const auto goes_before = [](const row_map::iterator &a, const row_map::iterator &b) {
        const row &one = a->second, &other = b->second;
        return one.turn != other.turn ? one.turn < other.turn : one.number > other.number;
    };
    std::ranges::partial_sort(unused, unused.begin() + static_cast<ptrdiff_t>(count), goes_before);
    unused.resize(count);
    for (const row_map::iterator &each : unused) {
        unwritten_.erase(&*each);
        by_number_.erase(each->second.number);
        forgotten_.push_back(each->second.number);
        rows_.erase(each);
    }
    return true;
}

} // namespace avwatch
