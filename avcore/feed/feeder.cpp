#include "avcore/feed/feeder.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace avcore {

bool feeder::burst_open(int64_t now_ms) const {
    return bursts_.size() < MAX_BURSTS || bursts_.back().run == run_of(now_ms);
}

bool feeder::has_room(int64_t now_ms) const {
    if (!started_ && !frames_.empty())
        return false;
    return !draining_ && burst_open(now_ms) && frames_.size() < max_frames_ &&
           outstanding_bytes_ + MAX_FED_SIZE <= MAX_BYTES;
}

uint64_t feeder::add(fed_frame frame, int64_t now_ms) {
    if (!waiting_since_ms_)
        waiting_since_ms_ = now_ms;
    outstanding_bytes_ += frame.bytes.size();
    frames_.push_back({.frame = std::move(frame), .number = ++added_});
    queue(std::prev(frames_.end()));
    return added_;
}

uint64_t feeder::judged() const {
    const auto awaited =
        std::find_if(frames_.begin(), frames_.end(),
                     [this](const outstanding &frame) { return frame.number > newest_answered_; });
    if (awaited == frames_.end())
        return added_;
    return awaited->sent ? awaited->number : awaited->number - 1;
}

void feeder::queue(frame_ref frame) {
    if (frame->queued)
        return;
    frame->queued = true;
    to_send_.push_back(frame);
}

const fed_frame *feeder::next_to_send(int64_t now_ms) const {
    if (to_send_.empty() || (draining_ ? round_left_ == 0 : !burst_open(now_ms)))
        return nullptr;
    return &to_send_.front()->frame;
}

void feeder::sent(int64_t now_ms) {
    const frame_ref frame = to_send_.front();
    to_send_.pop_front();
    if (round_left_ > 0)
        --round_left_;
    frame->queued = false;
    if (!frame->sent) {
        frame->sent = true;
        ++counts_.sent;
    } else {
        frame->resent = true;
        ++(started_ ? counts_.resent : counts_.start_repeats);
    }
    ++frame->copies;
    copies_.push_back({frame->frame.key, frame, now_ms});
    if (bursts_.empty() || bursts_.back().run != run_of(now_ms))
        bursts_.push_back({run_of(now_ms), 0});
    ++bursts_.back().copies;
}

feeder::copy feeder::pop_copy() {
    const copy oldest = copies_.front();
    copies_.pop_front();
    if (--bursts_.front().copies == 0)
        bursts_.pop_front();
    return oldest;
}

// The frame is resolved: what is still on its way of it is superfluous.
fed_frame feeder::finish(frame_ref frame) {
    if (frame->copies > 0) {
        for (copy &one : copies_) {
            if (one.frame == frame)
                one.frame.reset();
        }
    }
    if (frame->queued) {
        const auto place = std::find(to_send_.begin(), to_send_.end(), frame);
        if (static_cast<size_t>(place - to_send_.begin()) < round_left_)
            --round_left_;
        to_send_.erase(place);
    }
    fed_frame resolved = std::move(frame->frame);
    outstanding_bytes_ -= resolved.bytes.size();
    frames_.erase(frame);
    return resolved;
}

void feeder::give_up(frame_ref frame) {
    ++counts_.unanswered;
    finish(frame);
}

// No verdict will come for this copy. The frame is lost unless a later copy is on its way.
// Returns the frame unless it was resolved before.
std::optional<feeder::frame_ref> feeder::drop_oldest_copy() {
    const std::optional<frame_ref> frame = pop_copy().frame;
    if (frame && --(*frame)->copies == 0)
        queue(*frame);
    return frame;
}

std::optional<fed_frame> feeder::take_verdict(const flow_key &key, int64_t now_ms) {
    last_sign_ms_ = now_ms;
    silent_rounds_ = 0;
    std::optional<fed_frame> answered = answer(key, now_ms);
    waiting_since_ms_ = frames_.empty() ? std::nullopt : std::optional(now_ms);
    return answered;
}

std::optional<fed_frame> feeder::answer(const flow_key &key, int64_t now_ms) {
    const auto found = std::find_if(copies_.begin(), copies_.end(), [&key](const copy &one) {
        return memcmp(&one.key, &key, sizeof key) == 0;
    });
    if (found == copies_.end()) {
        ++counts_.overlooked;
        return std::nullopt;
    }
    for (auto older = found - copies_.begin(); older > 0; --older) {
        const std::optional<frame_ref> frame = drop_oldest_copy();
        if (frame && now_ms >= doubt_until_ms_ && ++(*frame)->overtaken == MAX_TRIES)
            give_up(*frame);
    }
    started_ = true;
    std::optional<fed_frame> answered;
    const copy judged = pop_copy();
    if (const std::optional<frame_ref> frame = judged.frame) {
        if (!(*frame)->resent)
            note_delay(now_ms - judged.sent_ms, now_ms);
        --(*frame)->copies;
        newest_answered_ = std::max(newest_answered_, (*frame)->number);
        ++counts_.answered;
        answered = finish(*frame);
    } else {
        ++counts_.overlooked;
    }
    if (copies_.empty())
        draining_ = false;
    return answered;
}

void feeder::note_delay(int64_t delay_ms, int64_t now_ms) {
    if (const int64_t age_ms = now_ms - slow_since_ms_; age_ms >= SLOW_MS) {
        slowest_before_ms_ = age_ms < 2 * SLOW_MS ? slowest_ms_ : 0;
        slowest_ms_ = 0;
        slow_since_ms_ = now_ms;
    }
    slowest_ms_ = std::max(slowest_ms_, delay_ms);
}

// How long nothing may come until something is sent again.
int64_t feeder::silence_ms() const {
    if (!started_)
        return SILENCE_MS;
    const int64_t first_ms = std::max(SILENCE_MS, 2 * std::max(slowest_ms_, slowest_before_ms_));
    return std::min(first_ms << std::min(silent_rounds_, 3U), LONGEST_SILENCE_MS);
}

// Since when nothing came although something could have.
int64_t feeder::quiet_since_ms() const {
    const copy &youngest_awaited = draining_ ? copies_.back() : copies_.front();
    return std::max(last_sign_ms_, youngest_awaited.sent_ms);
}

bool feeder::silent(int64_t now_ms, int64_t for_ms) const {
    return waiting_since_ms_ && now_ms - std::max(last_sign_ms_, *waiting_since_ms_) >= for_ms;
}

void feeder::link_lost(int64_t now_ms) {
    started_ = false;
    last_sign_ms_ = now_ms;
    waiting_since_ms_ = frames_.empty() ? std::nullopt : std::optional(now_ms);
}

void feeder::daemon_ended(int64_t now_ms) {
    for (frame_ref frame = frames_.begin(); frame != frames_.end();) {
        const frame_ref next = std::next(frame);
        if (frame->sent)
            give_up(frame);
        frame = next;
    }
    while (!copies_.empty())
        pop_copy();
    draining_ = false;
    silent_rounds_ = 0;
    round_left_ = 0;
    link_lost(now_ms);
}

void feeder::probe() {
    const auto on_their_way = static_cast<size_t>(std::count_if(
        frames_.begin(), frames_.end(), [](const outstanding &frame) { return frame.copies > 0; }));
    const size_t round = started_ ? silent_rounds_ : 0;
    ++silent_rounds_;
    draining_ = true;
    to_send_.clear();
    for (outstanding &frame : frames_)
        frame.queued = false;
    queue(std::next(frames_.begin(),
                    static_cast<std::ptrdiff_t>(round % std::max<size_t>(on_their_way, 1))));
    // Behind it wait the frames that have no copy on its way.
    for (frame_ref frame = frames_.begin(); frame != frames_.end(); ++frame) {
        if (frame->copies == 0)
            queue(frame);
    }
    round_left_ = 1;
}

void feeder::tick(int64_t now_ms) {
    if (copies_.empty() || now_ms - quiet_since_ms() < silence_ms())
        return;
    const bool heard_since_round = draining_ && silent_rounds_ == 0;
    if (!heard_since_round && !frames_.empty()) {
        probe();
        return;
    }
    doubt_until_ms_ = now_ms + GONE_MS;
    while (!copies_.empty())
        drop_oldest_copy();
    draining_ = false;
    round_left_ = 0;
}

std::optional<int64_t> feeder::next_tick_ms() const {
    if (copies_.empty())
        return std::nullopt;
    return quiet_since_ms() + silence_ms();
}

bool feeder::daemon_gone(int64_t now_ms) const {
    return waiting_since_ms_ && now_ms - *waiting_since_ms_ >= (started_ ? GONE_MS : START_MS);
}

} // namespace avcore
