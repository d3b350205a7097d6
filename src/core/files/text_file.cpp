#include "core/files/text_file.h"

#include <algorithm>
#include <cerrno>

namespace {

// The next character of the file. A signal in between doesn't count.
int next_character(FILE *file) {
    int c;
    while ((c = getc_unlocked(file)) == EOF && ferror(file) != 0 && errno == EINTR)
        clearerr(file);
    return c;
}

} // namespace

line_reader::line_reader(FILE *file, const char *path, log_origin from, size_t length)
    : file_(file), path_(path), from_(from), capacity_(std::min(length, LENGTH_MAX)) {
    text_[0] = '\0';
}

bool line_reader::next(std::string_view &line) {
    size_t length = 0;
    bool ended = false; // the text; what follows up to the line feed is skipped
    bool any = false;
    bool cut = false;
    errno = 0;
    for (int c; (c = next_character(file_)) != EOF;) {
        any = true;
        if (c == '\n')
            break;
        if (ended || c == '\0' || length == capacity_)
            ended = cut = true;
        else
            text_[length++] = static_cast<char>(c);
    }
    if (ferror(file_) != 0)
        read_error_ = errno != 0 ? errno : EIO;
    text_[length] = '\0';
    line = {text_, length};
    if (!any)
        return false;
    ++line_number_;
    if (cut)
        JORN_SAY(JORN_LOG_ERROR, from_, "%s: line %u is cut after %zu characters\n", path_,
                 line_number_, length);
    return true;
}
