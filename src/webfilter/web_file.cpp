#include "webfilter/web_file.h"

#include "core/base/flags.h"
#include "core/base/log.h"
#include "core/files/saved_file.h"
#include "core/files/storable.h"
#include "core/state/state.h"
#include "platform/psms.h"
#include "webfilter/lines/web_lines.h"
#include "webfilter/web_tables.h"

namespace {

// The lines of both sections stand in the log under the loader's name, but for what the parsers
// say.
constexpr char LOADER[] = "jorn_load_web_configurations";

struct pending_web_policy {
    web_policy_wire policy;
};
struct no_pending {};

void note_line(std::string_view line) {
    JORN_DEBUG_AS(LOADER, "parsing %.*s\n", static_cast<int>(line.size()), line.data());
}

void start_policy(std::string_view, pending_web_policy &pending) {
    pending.policy = {};
}

void jorn_parse_web_policy_config(std::string_view line, pending_web_policy &pending) {
    note_line(line);
    JORN_DEBUG("parsing policy %.*s %d\n", static_cast<int>(line.size()), line.data(),
               static_cast<int>(line.size()));
    read_line(line, WEB_POLICY_LINE, pending.policy);
}

void finish_policy(std::string_view line, pending_web_policy &pending) {
    note_line(line);
    JORN_DEBUG_AS(LOADER, "Policy end...\n");
    __web_find_intf_and_build_utp_for_pcy(&pending.policy);
}

void jorn_parse_web_filter_intf_config(std::string_view line, no_pending &) {
    web_intf_wire binding = {};
    read_line(line, WEB_INTF_LINE, binding);
    jorn_process_web_intf_config(&binding);
    JORN_DEBUG("Intf config: %.*s\n", static_cast<int>(line.size()), line.data());
}

enum policy_place : uint8_t { BEFORE, POLICIES, BLOCK };

constexpr section_row<pending_web_policy> POLICY_SECTION[] = {
    {BEFORE, WEB_POLICIES_BEGIN, "webPolicy start...\n", nullptr, POLICIES},
    {POLICIES, WEB_POLICIES_END, "webPolicy end...\n", nullptr, SECTION_END},
    {POLICIES, WEB_BLOCK_BEGIN, "Policy start...\n", start_policy, BLOCK},
    {BLOCK, WEB_BLOCK_END, nullptr, finish_policy, POLICIES},
    {BLOCK, "", nullptr, jorn_parse_web_policy_config, BLOCK},
};

enum intf_place : uint8_t { GAP, INTFS };

// The bindings go on behind their end marker.
constexpr section_row<no_pending> INTF_SECTION[] = {
    {GAP, WEB_INTFS_BEGIN, "Interface config start...\n", nullptr, INTFS},
    {INTFS, WEB_INTFS_END, "Interface config end...\n", jorn_parse_web_filter_intf_config, INTFS,
     true},
    {INTFS, "", nullptr, jorn_parse_web_filter_intf_config, INTFS},
};

// Returns false when there is a file that can't be opened.
bool restore_web_filter() {
    const log_origin from = JORN_AS(LOADER);
    pending_web_policy policy = {};
    no_pending none;
    file_section policies(std::span<const section_row<pending_web_policy>>(POLICY_SECTION), policy,
                          from);
    file_section bindings(std::span<const section_row<no_pending>>(INTF_SECTION), none, from);
    return load_file(WEB_FILTER_FILE, {&policies, &bindings}, from);
}

} // namespace

void jorn_save_web_configuration() {
    save_file(
        WEB_FILTER_FILE,
        {{jorn_write_web_filtering_policy_configuration, "write web-filter configuration failed\n"},
         {jorn_write_web_filtering_interface_configuration,
          "write web-interface configuration failed\n"}},
        JORN_HERE);
}

void jorn_load_web_configurations() {
    JORN_DEBUG("JORN loading Web-Filter configurations...\n");
    jorn_process_web_policy_flush();
    if (!restore_web_filter())
        return;
    for (const web_intf &binding : jorn_state.web_intf_list) {
        if (exit_requested())
            return;
        if (binding.ifname[0] == '\0' || binding.enable != 1)
            continue;
        JORN_DEBUG(" set url_filter_enable for interface %s\n",
                   printable_text(binding.ifname).c_str());
        if (psms_av_set_dev_url(binding.ifname, 1) != 0)
            JORN_ERROR("URL filtering isn't switched on for %s: the platform wasn't told\n",
                       printable_text(binding.ifname).c_str());
    }
}

int jorn_write_web_filtering_policy_configuration(FILE *file) {
    section_writer writer(file, "write configuration file error!\n", JORN_HERE);
    writer.write_marker(WEB_POLICIES_BEGIN);
    write_records<WEB_BLOCK_LIMIT>(writer, jorn_state.web_policy_list, jorn_format_web_policy);
    writer.write(WEB_POLICIES_END);
    return writer.result();
}

int jorn_format_web_policy(char *text, const web_policy_wire *policy, size_t *length,
                           size_t capacity) {
    text_appender to(text, length, capacity);
    to.append(WEB_BLOCK_BEGIN);
    to.append("\n");
    write_line(to, WEB_POLICY_LINE, *policy);
    to.append(WEB_BLOCK_END);
    to.append("\n\n");
    return to.result();
}

int jorn_write_web_filtering_interface_configuration(FILE *file) {
    section_writer writer(file, "write interface configuration file error!\n", JORN_HERE);
    writer.write("\n"); // the section before ends without one
    writer.write_marker(WEB_INTFS_BEGIN);
    for (const web_intf_wire &binding : jorn_state.web_intf_list) {
        char line[sizeof(web_intf_wire) + 64] = {};
        size_t length = 0;
        text_appender to(line, &length, sizeof line);
        write_line(to, WEB_INTF_LINE, binding);
        writer.write({line, length});
    }
    writer.write_marker(WEB_INTFS_END);
    return writer.result();
}

bool is_storable(const web_policy_wire &asked) {
    char what[96];
    snprintf(what, sizeof what, "web policy %.64s", printable_text(field_text(asked.name)).c_str());
    return is_storable(asked, WEB_POLICY_LINE, WEB_POLICY_MARKERS, what,
                       JORN_AS("__web_find_intf_and_build_utp_for_pcy"));
}

bool is_storable(const web_intf_wire &asked) {
    char what[96];
    snprintf(what, sizeof what, "web binding of %.16s",
             printable_text(field_text(asked.ifname)).c_str());
    // No marker divides the bindings: even the end of their section is read as one of them.
    return asked.op != WEB_INTF_ADD ||
           is_storable(asked, WEB_INTF_LINE, {}, what, JORN_AS("jorn_process_web_intf_config"));
}
