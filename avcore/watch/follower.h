// One reader who follows flows: what it was told last of each, and so what is new to it.
//
// It goes through the table in passes, and a pass takes as long as the reader does. A flow that
// changes meanwhile is told as it is when its turn comes, and again in the next pass, which begins
// so much later than the last one's end as the reader wants. So a slow reader gets fewer rows and
// no older ones. Ends don't wait for the next pass: avcore may be killed before.
#pragma once

#include "avcore/gate/gate.h"
#include "avcore/watch/flow_object.h"
#include "avcore/watch/outgoing_lines.h"
#include "avcore/watch/questions.h"
#include "avcore/watch/watched_flows.h"

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace avcore {

class follower : public flow_reader {
public:
    static constexpr size_t MAX_SUMS = 4'096; // clients' applications; all others are one

    // All of them outlive it. `behind`: null: there is no gate.
    follower(watched_flows &flows, const gate *behind, outgoing_lines &out,
             const follow_wish &wish);
    ~follower() override;
    follower(const follower &) = delete;
    follower &operator=(const follower &) = delete;

    const follow_wish &wish() const { return wish_; }
    // Makes some messages, if there is something to tell by now.
    void add_some(int64_t now_ms);
    // When there may be something to tell.
    int64_t due_ms(int64_t now_ms) const;
    // When a round over the gate's flows is to begin for it, the one before having been wanted at
    // `last_ms`: each reads all of them, so it comes no more often than what it finds is told.
    int64_t round_due_ms(int64_t last_ms) const;
    // An event that no flow has; members of its object, behind `what` and `us`.
    void tell(std::string_view what, int64_t now_us, std::string_view members);
    // Nothing will change any more: what is left is told at once.
    void hurry();
    bool has_all() const;

    bool has_end(uint32_t place) const override;
    void sum_up(uint32_t place) override;
    void leave(uint32_t place) override;
    void happened(flow_event what, uint32_t place) override;
    bool takes_events() const override { return wish_.events; }
    int64_t ends_from_us() const override;

private:
    static constexpr uint64_t END = UINT64_MAX;

    struct told_values {
        uint64_t change = 0; // number of the last one that was looked at; END: nothing more
        gate_counter counts = {};
        bool is_any = false; // it fitted
    };

    told_values &told_at(uint32_t place);
    bool was_over(const watched_flow &flow) const;
    bool is_past(const watched_flow &flow) const;
    bool awaits_round() const;
    bool add_sum();
    bool add_end();
    bool add_flow(uint32_t place); // false: there is nothing new
    void end_pass(int64_t now_ms);

    watched_flows &flows_;
    const gate *behind_;
    outgoing_lines &out_;
    follow_wish wish_;
    uint64_t since_; // number of the last change when it began
    int64_t ends_from_us_;
    uint64_t end_; // number of the last end that was looked at
    uint64_t first_round_;
    uint64_t passed_round_ = 0; // of the last pass
    bool hurries_ = false;
    std::deque<told_values> told_; // by place; grows by pieces, as the first listing comes along
    std::map<sum_key, sum_of_flows> sums_;
    bool in_pass_ = false;
    uint32_t next_ = 0; // of the pass
    uint32_t until_ = 0;
    int64_t pass_due_ms_ = 0;
    bool listed_ = false;
    uint64_t passed_change_ = 0; // number of the last change when the last pass began
};

} // namespace avcore
