// One run of avcore: the loop that moves frames from the source through the feeder into the sink
// and serves the AV channel meanwhile.
#pragma once

#include "avcore/base/loop.h"
#include "avcore/bus/bus.h"
#include "avcore/bus/own_name.h"
#include "avcore/channel/channel_server.h"
#include "avcore/conversation.h"
#include "avcore/enforce/enforcement.h"
#include "avcore/feed/feeder.h"
#include "avcore/feed/frame_sink.h"
#include "avcore/flows/frame_builder.h"
#include "avcore/names/dns_names.h"
#include "avcore/options.h"
#include "avcore/progress.h"
#include "avcore/reporter.h"
#include "avcore/settings/config.h"
#include "avcore/signals.h"
#include "avcore/source/source.h"
#include "avcore/watch/watch.h"
#include "avcore/web/safe_search.h"
#include "avcore/web/url_agent.h"

#include <functional>
#include <future>
#include <memory>
#include <string>

namespace avcore {

class session {
public:
    // Opens everything; throws std::runtime_error.
    session(const options &options, config settings);

    // Runs until the input ends, a signal comes or the daemon is gone, and prints the report.
    // Returns the exit status.
    int run();

private:
    enum class ending { none, complete, stopped, failed };

    ending turn();
    void serve(int64_t now_ms); // the half of a turn that waits, and answers
    void finish_reports(bool serving);
    void tick(int64_t now_ms);
    void take_signal();
    void hang_up();
    void read_config_again();
    void read_categories_again();
    void take_categories();
    void pull_frames();
    void pull_unasked_frames();
    void take_frame(const captured_frame &captured);
    void send_frames();
    void fill_loop();
    bool has_room() const;                       // for a frame, and there may be one
    int64_t frames_due_ms(int64_t now_ms) const; // to be moved, whatever comes
    void serve_channel(int64_t now_ms);
    void explain_waiting(int64_t now_ms);
    void explain_link_type();
    void say(const std::string &what); // on standard error
    std::function<void(const std::string &)> sayer();
    std::unique_ptr<watch> open_watch();
    watch::surroundings watch_surroundings();
    watch::outside look_outside() const;
    std::string profile_for(const profile_question &asked);
    named_counts all_counts();
    void let_readers_finish();
    totals all_totals() const;
    std::string totals_text();

    const options &options_;
    config settings_;
    signals signals_; // before anything starts a thread
    frame_sink sink_;
    std::unique_ptr<enforcement> inline_; // null: verdicts aren't enforced
    frame_builder builder_;
    feeder feeder_;
    frame_source source_;
    channel_server channel_;
    progress_bar progress_;
    name_timeline names_;
    std::vector<std::string> category_sources_; // read last
    url_agent agent_;
    std::future<category_list> fresh_categories_; // being read again
    std::unique_ptr<safe_search> safe_search_;    // null: nobody carries it out
    std::unique_ptr<watch> watch_;                // null: there is no watch socket
    conversation conversation_;
    own_name bus_name_;
    reporter reports_;
    std::unique_ptr<message_bus> bus_; // null: there is none
    loop loop_;
    loop last_loop_; // of a report that is finished when nothing else goes on
    int64_t first_frame_ms_ = -1;
    bool input_ended_ = false;
    bool more_input_ = false; // without waiting
    bool sink_full_ = false;
    bool link_down_ = false; // when it was last asked
    bool reading_again_ = false;
    bool stop_requested_ = false;
    bool ending_ = false; // all that is left to do is the report
    bool last_report_begun_ = false;
    bool waiting_explained_ = false;
    bool link_type_explained_ = false;
    int64_t farewell_ends_ms_ = NEVER_MS;
    std::string error_;
};

} // namespace avcore
