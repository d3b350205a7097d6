// The files that keep the configuration over a restart: their folder, the whole rewrite after a
// command, the one reading at start-up.
//
// A rewrite deletes the old file before it creates the new one. Whoever is stopped in between
// leaves no file or a cut one, and the readers live with both.
#pragma once

#include "core/base/log.h"
#include "core/files/section.h"

#include <cstdio>
#include <initializer_list>
#include <string_view>

inline constexpr int SAVED_FILE_ERR_WRITE = -9;

// The path of a file in the folder of the settings. Lives as long as the statement that uses it.
class saved_file_path {
public:
    explicit saved_file_path(const char *name);
    const char *c_str() const { return text_; }

private:
    char text_[128];
};

// A part of a file: its writer, which returns 0 or, after a line in the log, SAVED_FILE_ERR_WRITE;
// and what is then logged for it.
struct saved_section {
    int (*write)(FILE *file);
    log_text failure;
};

// Rewrites the file, section by section, and stops at the first that can't be written. Failures
// stand in the log, under `from`.
void save_file(const char *name, std::initializer_list<saved_section> sections, log_origin from);

// Reads the file, if it exists, through its sections. One that can't be opened is reported and
// removed, so that the next start begins clean; only then the result is false.
bool load_file(const char *name, std::initializer_list<section_reader *> sections, log_origin from);

// What the writer of a section writes with. The first piece that doesn't go out whole is reported
// under `from`, as `failure`, and is the last.
class section_writer {
public:
    section_writer(FILE *file, log_text failure, log_origin from)
        : file_(file), failure_(failure), from_(from) {}

    void write(std::string_view piece);
    void write_marker(const char *marker); // and a line feed
    int result() const { return result_; } // 0, or SAVED_FILE_ERR_WRITE

private:
    FILE *file_;
    log_text failure_;
    log_origin from_;
    int result_ = 0;
};

// Writes the text of each record; one that doesn't stay below `Limit` characters is left out.
// `format` is the room's: (text, record, length, capacity), 0 for a text that fits.
template <size_t Limit, typename Records, typename Format>
void write_records(section_writer &writer, const Records &records, Format format) {
    for (const auto &record : records) {
        char text[Limit + 1] = {};
        size_t length = 0;
        if (format(text, &record, &length, Limit) == 0)
            writer.write({text, length});
    }
}
