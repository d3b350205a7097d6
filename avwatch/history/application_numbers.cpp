#include "avwatch/history/application_numbers.h"

#include <algorithm>
#include <utility>

namespace avwatch {

void application_numbers::restore(application_name name, const row &stored) {
    const auto [at, is_new] = rows_.try_emplace(std::move(name), stored);
    if (!is_new)
        return;
    names_[stored.number] = &at->first;
    next_ = std::max(next_, stored.number + 1);
    stored_below_ = next_;
}

uint32_t application_numbers::number_of(const application_name &name, int64_t today) {
    if (name.text.empty())
        return UNNAMED_NUMBER;
    auto at = rows_.find(name);
    if (at == rows_.end()) {
        if ((rows_.size() >= MAX && !make_room(today)) || next_ == UINT32_MAX)
            return OTHER_NUMBER;
        at = rows_.try_emplace(name, row{next_++, today}).first;
        names_[at->second.number] = &at->first;
        unwritten_.insert(&*at);
    } else if (at->second.used_day != today) {
        at->second.used_day = today;
        unwritten_.insert(&*at);
    }
    return at->second.number;
}

const application_name *application_numbers::name_of(uint32_t number) const {
    const auto found = names_.find(number);
    return found != names_.end() ? found->second : nullptr;
}

void application_numbers::written() {
    unwritten_.clear();
    forgotten_.clear();
    stored_below_ = next_;
}

void application_numbers::forget_rows() {
    for (auto &each : rows_)
        unwritten_.insert(&each);
    forgotten_.clear();
}

// All of the day that is the furthest back: so it is looked for seldom.
bool application_numbers::make_room(int64_t today) {
    if (full_on_day_ == today)
        return false;
    int64_t oldest = today;
    for (const auto &[name, kept] : rows_)
        oldest = std::min(oldest, kept.used_day);
    if (oldest == today) {
        full_on_day_ = today;
        return false;
    }
    std::erase_if(rows_, [&](const auto &each) {
        if (each.second.used_day != oldest)
            return false;
        unwritten_.erase(&each);
        names_.erase(each.second.number);
        forgotten_.push_back(each.second.number);
        return true;
    });
    return true;
}

} // namespace avwatch
