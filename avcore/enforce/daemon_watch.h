// The watch over who decides: it tells the gate, once a second, for as long as a daemon does, and
// the log when the daemon leaves or is back, when copies of packets don't reach it and when the
// gate itself is gone.
//
// A daemon that answers, or that has come to the channel, decides; one that has left, lets a frame
// wait for a second or can't be shown any, for the link to it is down, doesn't. The session has it
// look after each turn of the channel and tells it of each verdict.
#pragma once

#include "avcore/channel/channel_server.h"
#include "avcore/feed/feeder.h"
#include "avcore/frames/frame.h"
#include "avcore/gate/gate.h"
#include "avcore/records/enforce_settings.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace avcore {

class daemon_watch {
public:
    using say_function = std::function<void(const std::string &)>;

    // All of them outlive the watch; the settings may change.
    daemon_watch(gate &gate, const enforce_settings &settings, const channel_server &channel,
                 feeder &feeder, say_function say, int64_t now_ms);

    void look(bool link_down, int64_t now_ms);
    // A verdict came. True when it may be the first one of another daemon, with other policies.
    bool answered(int64_t now_ms);

    // Whoever comes next, of this program or of the daemon, has all of the time that a beat holds.
    // A closed gate keeps its verdicts without, and would let pass what has none.
    void leave_time() {
        if (somebody_decides_ && !settings_.rules.fail_closed)
            gate_.beat();
    }

    bool somebody_decides() const { return somebody_decides_; } // as far as has shown
    int64_t next_tick_ms() const { return next_beat_ms_; }

private:
    // A count of the gate's, of which the log is told once a minute at most.
    struct shortage {
        gate_count which;
        uint64_t told = 0; // or passed over
        int64_t silent_until_ms = 0;
    };

    void decides(bool does, int64_t now_ms);
    void tell_shortages(int64_t now_ms);
    std::string refused_clients();
    // How many there are to be told of.
    static uint64_t take_news(shortage &of, const gate_counts &counts, int64_t now_ms);

    gate &gate_;
    const enforce_settings &settings_;
    const channel_server &channel_;
    feeder &feeder_;
    say_function say_;
    bool somebody_decides_; // as far as has shown
    bool has_left_ = false; // once, or it was silent
    bool has_come_ = false;
    bool may_be_new_ = false; // whoever sends the next verdict
    size_t connections_ = 0;  // at the last look
    uint64_t connects_ = 0;   // until then
    int64_t next_beat_ms_;
    shortage refused_ = {GATE_COUNT_COPIES_REFUSED};
    std::map<mac_address, uint64_t> refused_before_; // when it was last told
    shortage lost_ = {GATE_COUNT_COPIES_LOST};
    shortage tags_ = {GATE_COUNT_TAGS};
    shortage much_ = {GATE_COUNT_TOO_MUCH};
    shortage holds_refused_ = {GATE_COUNT_HOLDS_REFUSED};
    shortage holds_lost_ = {GATE_COUNT_HOLDS_LOST};
};

} // namespace avcore
