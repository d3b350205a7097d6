// The pace: which frame goes out when, and what became of it. Logic only; the session moves the
// bytes and tells the time, in milliseconds of a clock that never goes back.
//
// The daemon's capture drops what it has no room for, and only a verdict shows that a frame got
// through. Verdicts come in the order of the frames and carry the flow key, so the queue holds
// every copy on its way in the order of sending, and a verdict answers the first copy with its
// key: whatever was sent before that copy was lost. No frame is sent again while verdicts on those
// before it come. After a silence one of what is outstanding is sent again, the oldest frame at
// first, for a daemon that was merely busy still has all of it; while the silence lasts the next
// one follows, later each time. From then on copies may be on their way whose verdicts look like
// those of later frames; no new frame is sent until all of them are answered or the daemon, heard
// again, has fallen silent anew: then everything outstanding is sent again.
//
// A silence is 200 ms without a verdict, or twice as long as the slowest one of the last seconds
// took to come: a daemon that hardly gets to run would otherwise get the same frames over and over,
// and spend its little time on them.
//
// A frame is given up when it was overtaken eleven times, and for no silence: one that lasts is the
// daemon's end. After a silence copies that were taken for lost may still be answered by a daemon
// that hardly gets to run; what such verdicts seem to overtake isn't counted.
//
// The daemon's capture keeps eight blocks and closes one, however few frames are in it, whenever
// its timer has run, which on most interfaces is a millisecond. So what is outstanding must also
// stem from few runs of that timer: a trickle of one frame a millisecond would overrun a daemon
// that is busy for ten. A slow timer hands over more frames at once, and more have to be on their
// way.
//
// The first frame is sent alone and repeated without limit: before the daemon's capture is open,
// frames vanish. So it goes with the oldest one when the link to the daemon was down, for the
// daemon then opens its capture anew.
//
// The daemon is gone when no verdict of any kind came for a time after a frame was sent. Where all
// is answered, no time passes.
#pragma once

#include "avcore/frames/frame.h"
#include "platform/records.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <list>
#include <optional>
#include <vector>

namespace avcore {

struct fed_frame {
    std::vector<uint8_t> bytes; // frame and trailer
    flow_key key = {};
    uint32_t flow = 0; // the row's id
    uint64_t number_in_flow = 0;
    bool from_client = false;
    bool engine_done = true; // what the DPI engine says of the flow won't change
    uint32_t generation = 0; // of the verdicts that were asked for when it was added; inline only

    av_pkt_trailer trailer() const {
        av_pkt_trailer trailer;
        memcpy(&trailer, bytes.data() + bytes.size() - sizeof trailer, sizeof trailer);
        return trailer;
    }
};

struct feeder_counts {
    uint64_t sent = 0; // frames, however often each was sent
    uint64_t answered = 0;
    uint64_t resent = 0;
    uint64_t start_repeats = 0; // of the first frame, before the first verdict
    uint64_t unanswered = 0;    // given up
    uint64_t overlooked = 0;    // verdicts that answered none of the frames
};

class feeder {
public:
    // A feeder may keep 400. But the verdicts of all of them must fit into the channel when this
    // process doesn't get to read for a while, and a daemon without privileges gets room for some
    // 160 of Linux.
    static constexpr size_t FRAMES_A_MS = 128; // of the timer
    static constexpr size_t MAX_FRAMES = 400;
    static constexpr size_t MAX_BYTES = size_t{1024} * 1024;
    static constexpr size_t MAX_BURSTS = 4;   // runs of the timer in which what is outstanding left
    static constexpr unsigned MAX_TRIES = 11; // of a frame, overtaken
    static constexpr int64_t SILENCE_MS = 200; // at least
    static constexpr int64_t LONGEST_SILENCE_MS = 1'000;
    static constexpr int64_t SLOW_MS = 5'000; // a slow verdict counts for as long, or twice
    static constexpr int64_t GONE_MS = 5'000;
    // Until the first verdict: the daemon may still have to be started.
    static constexpr int64_t START_MS = 30'000;

    // `timer_ms`: of the daemon's capture.
    explicit feeder(int64_t timer_ms = 1)
        : timer_ms_(timer_ms),
          max_frames_(std::min(MAX_FRAMES, FRAMES_A_MS * static_cast<size_t>(timer_ms))) {}

    // Whether one more frame of any size may be added now.
    bool has_room(int64_t now_ms) const;
    // Returns the frame's number; they are counted from 1.
    uint64_t add(fed_frame frame, int64_t now_ms);

    // The frame to write next; null when there is none now. `sent` says that it was written.
    const fed_frame *next_to_send(int64_t now_ms) const;
    void sent(int64_t now_ms);

    // The frame that it answers; none: a verdict to overlook.
    std::optional<fed_frame> take_verdict(const flow_key &key, int64_t now_ms);

    // The number of the frame that the daemon is judging: the oldest that awaits a verdict and
    // wasn't overtaken by a later frame's. Never goes back; between two frames it is the last
    // one's.
    uint64_t judged() const;

    // The link to the daemon is down, to be called while it is and `silent`; or the daemon is gone
    // and will be waited for.
    void link_lost(int64_t now_ms);
    // It is gone for good, and with it what it had: what it left unanswered is given up, for one of
    // these frames may have been its end. Another daemon will be waited for.
    void daemon_ended(int64_t now_ms);

    // Looks for a silence. To be called at least whenever `next_tick_ms` has come.
    void tick(int64_t now_ms);
    std::optional<int64_t> next_tick_ms() const;

    // Whether a sign of the daemon is awaited, and whether it has been for 200 ms.
    bool waiting() const { return waiting_since_ms_.has_value(); }
    bool silent(int64_t now_ms, int64_t for_ms = SILENCE_MS) const;
    bool started() const { return started_; }
    bool daemon_gone(int64_t now_ms) const;
    const feeder_counts &counts() const { return counts_; }

private:
    struct outstanding {
        fed_frame frame;
        uint64_t number;
        unsigned copies = 0;    // in copies_
        unsigned overtaken = 0; // copies of it
        bool sent = false;
        bool resent = false;
        bool queued = false; // in to_send_
    };
    using frame_ref = std::list<outstanding>::iterator;
    struct copy {
        flow_key key;
        std::optional<frame_ref> frame; // none: its frame was answered or given up
        int64_t sent_ms;
    };

    void queue(frame_ref frame);
    std::optional<fed_frame> answer(const flow_key &key, int64_t now_ms);
    fed_frame finish(frame_ref frame);
    void give_up(frame_ref frame);
    std::optional<frame_ref> drop_oldest_copy();
    void probe();
    void note_delay(int64_t delay_ms, int64_t now_ms);
    int64_t silence_ms() const;
    int64_t quiet_since_ms() const;
    int64_t run_of(int64_t now_ms) const { return now_ms / timer_ms_; }
    bool burst_open(int64_t now_ms) const;
    copy pop_copy();

    int64_t timer_ms_;
    size_t max_frames_;
    std::list<outstanding> frames_; // unresolved, in their order
    std::deque<frame_ref> to_send_; // new ones and lost ones
    std::deque<copy> copies_;       // on their way, in the order of sending
    struct burst {
        int64_t run; // of the timer
        size_t copies;
    };
    std::deque<burst> bursts_; // of copies_
    size_t outstanding_bytes_ = 0;
    uint64_t added_ = 0;
    uint64_t newest_answered_ = 0;
    bool started_ = false;
    bool draining_ = false;      // after a silence: only the round's frames are sent
    unsigned silent_rounds_ = 0; // since the last verdict
    size_t round_left_ = 0;      // frames at the front of to_send_ that the round sends
    int64_t doubt_until_ms_ = 0; // copies that were taken for lost may be answered
    int64_t slowest_ms_ = 0;     // of the verdicts since `slow_since_ms_`
    int64_t slowest_before_ms_ = 0;
    int64_t slow_since_ms_ = 0;
    int64_t last_sign_ms_ = 0; // of the last verdict, or when the link was last found down
    std::optional<int64_t> waiting_since_ms_; // none: no frame went unanswered since the last sign
    feeder_counts counts_;
};

} // namespace avcore
