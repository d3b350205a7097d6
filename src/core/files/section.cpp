#include "core/files/section.h"

#include "core/files/text_file.h"

#include <algorithm>

void read_sections(FILE *file, const char *path, log_origin from,
                   std::initializer_list<section_reader *> sections) {
    line_reader reader(file, path, from);
    const auto *current = sections.begin();
    for (std::string_view line; current != sections.end() && reader.next(line);) {
        (*current)->take(line);
        if ((*current)->has_ended())
            ++current;
    }
    const bool whole = std::all_of(current, sections.end(),
                                   [](const section_reader *rest) { return rest->is_whole(); });
    if (reader.read_error() != 0)
        JORN_LOG(JORN_LOG_ERROR, from, reader.read_error(), "%s can't be read to its end\n", path);
    else if (!whole)
        JORN_SAY(JORN_LOG_ERROR, from,
                 "%s ends early, after line %u: what isn't whole is left out\n", path,
                 reader.line_number());
}
