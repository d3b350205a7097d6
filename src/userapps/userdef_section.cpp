#include "userapps/userdef_section.h"

#include "core/files/saved_file.h"
#include "core/state/state.h"
#include "userapps/lines/userdef_line.h"
#include "userapps/settle.h"

#include <span>

namespace {

// The lines of the section stand in the log under the loader's name.
constexpr char LOADER[] = "jorn_load_configurations";

void take_userdef(std::string_view line, pending_userdefs &pending) {
    userdef_table &table = pending.table;
    if (table.count < USERDEF_APPS_MAX) {
        jorn_restore_userdef_policy_entry(line, &table.records[table.count]);
        ++table.count;
    } else if (!pending.overflow) {
        pending.overflow = true;
        JORN_ERROR_AS(LOADER, "more than %d user-defined applications, the others are ignored\n",
                      USERDEF_APPS_MAX);
    }
}

void finish_userdefs(std::string_view, pending_userdefs &pending) {
    jorn_state.userdef_apps = pending.table;
    settle_userapps();
    JORN_DEBUG_AS(LOADER, "userdef : %d\n", pending.table.count);
}

enum place : uint8_t { BEFORE, USERDEFS };

constexpr section_row<pending_userdefs> SECTION_ROWS[] = {
    {BEFORE, USERDEFS_BEGIN, nullptr, nullptr, USERDEFS},
    {USERDEFS, USERDEFS_END, nullptr, finish_userdefs, SECTION_END},
    {USERDEFS, "", nullptr, take_userdef, USERDEFS},
};

} // namespace

constexpr std::span<const section_row<pending_userdefs>> USERDEF_SECTION = SECTION_ROWS;

int jorn_write_userdef_configuration(FILE *file) {
    section_writer writer(file, "write to configuration file error!\n", JORN_HERE);
    writer.write_marker(USERDEFS_BEGIN);
    const userdef_table &table = jorn_state.userdef_apps;
    write_records<USERDEF_LINE_LIMIT>(
        writer, std::span(table.records).first(static_cast<size_t>(table.count)),
        jorn_format_userdef_entry);
    writer.write_marker(USERDEFS_END);
    return writer.result();
}

int jorn_format_userdef_entry(char *text, const userdef_app *record, size_t *length,
                              size_t capacity) {
    text_appender to(text, length, capacity);
    write_line(to, USERDEF_LINE, *record);
    return to.result();
}

void jorn_restore_userdef_policy_entry(std::string_view line, userdef_app *record) {
    read_line(line, USERDEF_LINE, *record, [](int position, std::string_view text) {
        JORN_DEBUG_AS("jorn_restore_userdef_policy_entry", "%d: %.*s", position,
                      static_cast<int>(text.size()), text.data());
    });
}
