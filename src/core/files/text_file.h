// The line-oriented text files that the daemon reads: lines of a bounded length.
//
// Every file reader goes through this one; what differs between the files, how long a line may be,
// is an argument. People edit the files by hand and a power cut may leave anything in them, so no
// content is too odd: a line that is too long is cut and says so, and a NUL byte ends its line's
// text but hides nothing behind the line feed. Opening, closing and a file that can't be read are
// the caller's.
#pragma once

#include "core/base/log.h"

#include <cstddef>
#include <cstdio>
#include <string_view>

class line_reader {
public:
    static constexpr size_t LENGTH_MAX = 8096;

    // Lines of at most `length` characters (LENGTH_MAX at most), the line feed not counted. `path`
    // and `from` stand in the log where a line is cut.
    line_reader(FILE *file, const char *path, log_origin from, size_t length = LENGTH_MAX);

    // Reads the next line, without its line feed; a last line need not have one. The view is
    // followed by a NUL and stands until the next call. Returns false at the end of the file and
    // after a read error.
    bool next(std::string_view &line);

    unsigned line_number() const { return line_number_; } // of the last line read, from 1
    int read_error() const { return read_error_; }        // errno value, 0 = none

private:
    FILE *file_;
    const char *path_;
    log_origin from_;
    size_t capacity_;
    unsigned line_number_ = 0;
    int read_error_ = 0;
    char text_[LENGTH_MAX + 1];
};
