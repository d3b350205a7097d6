// A saved file is read through its sections, each a table of rows in the manner of
//
//   at        a line with      says             does            then at
//   {BEFORE,  "[things]",      "start...\n",    nullptr,        THINGS},
//   {THINGS,  "[things end]",  "end...\n",      finish_things,  SECTION_END},
//   {THINGS,  "",              nullptr,         take_thing,     THINGS},
//
// For each line the first row counts that stands at the section's place and whose marker the line
// holds, anywhere and in whatever letter case. A line for which there is no row is skipped. The
// place of a section's first row is where it starts. At SECTION_END the lines go on to the file's
// next section; a section whose lines are still read behind its end marker stays at its place, and
// marks that row with `whole`.
//
// A room owns its sections: it offers the rows and a type for what has been read and isn't whole
// yet; the owner of the file names the sections in their order.
#pragma once

#include "core/base/log.h"
#include "core/text/text.h"

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <string_view>

inline constexpr uint8_t SECTION_END = 0xFF;

template <typename Pending>
struct section_row {
    uint8_t at;
    std::string_view marker; // empty: every line has it
    log_text says;           // at debug level, before anything is done
    void (*take)(std::string_view line, Pending &pending); // none = nothing
    uint8_t then_at;
    bool whole = false; // the file may end from here on
};

class section_reader {
public:
    virtual void take(std::string_view line) = 0;
    bool has_ended() const { return place_ == SECTION_END; }
    bool is_whole() const { return whole_ || has_ended(); }

protected:
    explicit section_reader(uint8_t place) : place_(place) {}
    ~section_reader() = default;

    uint8_t place_;
    bool whole_ = false;
};

// One reading of a section. What the rows say stands in the log under `from`.
template <typename Pending>
class file_section final : public section_reader {
public:
    file_section(std::span<const section_row<Pending>> rows, Pending &pending, log_origin from)
        : section_reader(rows.front().at), rows_(rows), pending_(pending), from_(from) {}

    void take(std::string_view line) override {
        for (const section_row<Pending> &row : rows_) {
            if (row.at == place_ && contains_ignoring_case(line, row.marker)) {
                run(row, line);
                return;
            }
        }
    }

private:
    void run(const section_row<Pending> &row, std::string_view line) {
        jorn_log_text(JORN_LOG_DEBUG, from_, 0, row.says);
        if (row.take != nullptr)
            row.take(line, pending_);
        place_ = row.then_at;
        whole_ = whole_ || row.whole;
    }

    std::span<const section_row<Pending>> rows_;
    Pending &pending_;
    log_origin from_;
};

// Hands the file's lines to its sections, in their order. A file that can't be read to its end, or
// ends before all its sections are whole, is reported. `path` names it in the log.
void read_sections(FILE *file, const char *path, log_origin from,
                   std::initializer_list<section_reader *> sections);
