// The reports of one run on standard output, one at a time: those that are asked for while it goes
// on, some of it in each turn of the loop, and the last one.
#pragma once

#include "avcore/base/loop.h"
#include "avcore/flows/flow_table.h"
#include "avcore/gate/gate.h"
#include "avcore/progress.h"
#include "avcore/report/report_job.h"

#include <functional>
#include <memory>
#include <string>

namespace avcore {

class reporter {
public:
    struct surroundings {
        const flow_table &flows;
        const gate *behind; // null: no gate
        bool json;          // then the totals go to standard error
        std::function<std::string()> totals;
        progress_bar &progress;
        std::function<void(const std::string &)> say;
        std::function<void(const std::function<void()> &)> take_time; // does some of the work
    };
    // All of them outlive it.
    explicit reporter(surroundings around) : around_(std::move(around)) {}

    bool is_writing() const { return job_ != nullptr; }
    void begin();
    void leave_unfinished();
    // For the loop, to go on with what is being written.
    loop::row row();

    bool all_written() const { return all_written_; } // to its end, each that was begun

private:
    void go_on();
    void end(const char *failure); // null: none

    surroundings around_;
    std::unique_ptr<report_job> job_; // being written
    bool waits_ = false;              // for its reader
    bool all_written_ = true;
};

} // namespace avcore
