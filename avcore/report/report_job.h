// A report that is being written, some of it at a time, and no more than its reader takes.
#pragma once

#include "avcore/report/report.h"

#include <functional>
#include <string>

namespace avcore {

class report_job {
public:
    // What follows the rows, once they are made.
    using end_function = std::function<std::string()>;

    report_job(row_writer rows, end_function end, int fd);

    enum class state {
        goes_on, // there is more to do at once
        waits,   // until the descriptor can be written to
        written,
        failed
    };
    // Takes a few milliseconds at most.
    state go_on();

private:
    bool make_more();
    state write_some();

    row_writer rows_;
    end_function end_; // empty once it was called
    int fd_;
    std::string text_; // to be written
};

} // namespace avcore
