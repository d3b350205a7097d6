// One run of avcore: the loop that moves frames from the source through the feeder into the sink
// and serves the AV channel meanwhile.
#pragma once

#include "avcore/base/line_cap.h"
#include "avcore/bus/bus.h"
#include "avcore/channel/channel_server.h"
#include "avcore/enforce/daemon_watch.h"
#include "avcore/enforce/enforcer.h"
#include "avcore/enforce/urgency.h"
#include "avcore/feed/feeder.h"
#include "avcore/feed/frame_sink.h"
#include "avcore/flows/frame_builder.h"
#include "avcore/gate/gate.h"
#include "avcore/names/dns_names.h"
#include "avcore/options.h"
#include "avcore/progress.h"
#include "avcore/report/report_job.h"
#include "avcore/settings/config.h"
#include "avcore/signals.h"
#include "avcore/source/source.h"
#include "avcore/web/safe_search.h"
#include "avcore/web/url_agent.h"

#include <future>

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
    void follow_interfaces(); // of the gate
    void take_signal();
    void hang_up();
    void read_config_again();
    void take_categories();
    void pull_frames();
    void take_frame(const captured_frame &captured);
    void send_frames();
    void wait(int64_t now_ms);
    void serve_channel();
    void open_bus();
    std::string bus_name();
    std::vector<std::byte> take_datagram(byte_span datagram);
    void outdate_verdicts();
    void take(const av_verdict &verdict);
    void take(const syslog_line &line);
    void take(const av_app_setting &setting);
    void take(const av_safesearch_setting &setting);
    void take(const switch_setting &setting);
    std::vector<std::byte> answer(const question &asked);
    void explain_waiting(int64_t now_ms);
    void explain_link_type();
    void say(const std::string &what); // on standard error
    void say_some(const std::vector<std::string> &lines, line_cap &cap, int64_t now_ms);
    void begin_report();
    void continue_report();
    void end_report(const char *failure); // null: none
    std::string totals_text();
    bool engine_missed() const; // the DPI engine is there, and a daemon showed that it does without

    const options &options_;
    config settings_;
    signals signals_;            // before anything starts a thread
    std::unique_ptr<gate> gate_; // null: verdicts aren't enforced
    frame_builder builder_;
    feeder feeder_;
    frame_source source_;
    frame_sink sink_;
    channel_server channel_;
    progress_bar progress_;
    name_timeline names_;
    url_agent agent_;
    std::future<category_list> fresh_categories_; // being read again
    std::unique_ptr<enforcer> enforcer_;          // beside the gate
    std::unique_ptr<daemon_watch> watch_;         // as well
    std::unique_ptr<urgency> urgency_;            // as well
    std::unique_ptr<safe_search> safe_search_;    // null: nobody carries it out
    std::unique_ptr<message_bus> bus_;            // null: there is none
    std::string bus_name_;
    int64_t bus_name_ms_ = 0;                 // when it was last looked up
    std::map<std::string, int32_t> switches_; // "av wlan0" and the like
    bool engine_asked_ = false;
    bool engine_ignored_ = false;
    line_cap interface_changes_;
    line_cap interface_failures_;
    int64_t follow_due_ms_ = NEVER_MS; // interfaces that the gate couldn't be attached to
    size_t max_frame_size_ = 0;
    uint64_t malformed_messages_ = 0;
    uint64_t unknown_flows_ = 0;
    uint64_t refused_safe_search_ = 0;
    int64_t first_frame_ms_ = -1;
    bool input_ended_ = false;
    bool more_input_ = false; // without waiting
    bool sink_full_ = false;
    bool link_down_ = false; // when it was last asked
    bool stop_requested_ = false;
    bool ending_ = false; // all that is left to do is the report
    bool last_report_begun_ = false;
    std::unique_ptr<report_job> report_; // being written
    bool report_waits_ = false;          // for its reader
    bool waiting_explained_ = false;
    bool link_type_explained_ = false;
    bool report_written_ = true;
    std::string error_;
};

} // namespace avcore
