#include "wificalling/wificalling_file.h"

#include "core/base/log.h"
#include "core/files/saved_file.h"
#include "core/files/storable.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "platform/psms.h"
#include "wificalling/lines/wificalling_lines.h"
#include "wificalling/wificalling_tables.h"

namespace {

// The lines of the sections stand in the log under the loader's name.
constexpr char LOADER[] = "jorn_load_wificalling_configurations";

// Pending is a block's record until the block's end.
void begin_policy(std::string_view, wificalling_policy_wire &pending) {
    pending = {};
}

void log_block_line(std::string_view line) {
    JORN_DEBUG_AS(LOADER, "parsing %.*s\n", static_cast<int>(line.size()), line.data());
}

void take_policy_line(std::string_view line, wificalling_policy_wire &pending) {
    log_block_line(line);
    JORN_DEBUG_AS(LOADER, "parsing policy %.*s %d\n", static_cast<int>(line.size()), line.data(),
                  static_cast<int>(line.size()));
    jorn_parse_wificalling_policy_config(line, &pending);
}

void finish_policy(std::string_view line, wificalling_policy_wire &pending) {
    log_block_line(line);
    JORN_DEBUG_AS(LOADER, "Policy end...\n");
    jorn_process_wificalling_policy_cfg(pending);
}

enum policy_place : uint8_t { BEFORE_POLICIES, POLICIES, BLOCK };

constexpr section_row<wificalling_policy_wire> POLICY_SECTION[] = {
    {BEFORE_POLICIES, WIFICALLING_POLICIES_BEGIN, "wificallingPolicy start...\n", nullptr,
     POLICIES},
    {POLICIES, WIFICALLING_POLICIES_END, "wificallingPolicy end...\n", nullptr, SECTION_END},
    {POLICIES, WIFICALLING_BLOCK_BEGIN, "Policy start...\n", begin_policy, BLOCK},
    {BLOCK, WIFICALLING_BLOCK_END, nullptr, finish_policy, POLICIES},
    {BLOCK, "", nullptr, take_policy_line, BLOCK},
};

// A binding is whole with its line.
struct nothing_pending {};

void take_binding_line(std::string_view line, nothing_pending &) {
    JORN_DEBUG_AS(LOADER, "parsing intf config %.*s %d\n", static_cast<int>(line.size()),
                  line.data(), static_cast<int>(line.size()));
    jorn_parse_wificalling_intf_config(line);
    JORN_DEBUG_AS(LOADER, "Intf config: %.*s\n", static_cast<int>(line.size()), line.data());
}

enum intf_place : uint8_t { BEFORE_INTFS, INTFS };

constexpr section_row<nothing_pending> INTF_SECTION[] = {
    {BEFORE_INTFS, WIFICALLING_INTFS_BEGIN, "Interface config start...\n", nullptr, INTFS},
    {INTFS, WIFICALLING_INTFS_END, "Interface config end...\n", nullptr, INTFS, true},
    {INTFS, "", nullptr, take_binding_line, INTFS},
};

// Returns false when there is a file that can't be opened.
bool restore(log_origin from) {
    wificalling_policy_wire policy = {};
    nothing_pending nothing;
    file_section<wificalling_policy_wire> policies(POLICY_SECTION, policy, from);
    file_section<nothing_pending> intfs(INTF_SECTION, nothing, from);
    return load_file(WIFICALLING_FILE, {&policies, &intfs}, from);
}

// Reports, for the fields of a line as they are read, the count, a `Count` in its record, that its
// list of `most` can't hold.
template <typename Count>
auto count_watch(int32_t most, log_origin from) {
    return [most, from](int position, std::string_view text) {
        if (position != WIFICALLING_COUNT_POSITION)
            return;
        const auto count = static_cast<Count>(leading_decimal(text));
        if (count < 0 || count > most)
            JORN_SAY(JORN_LOG_ERROR, from, "a count of %lld is cut to %d\n",
                     static_cast<long long>(count), count < 0 ? 0 : most);
    };
}

} // namespace

void jorn_save_wificalling_configuration() {
    save_file(
        WIFICALLING_FILE,
        {{jorn_write_wificalling_policy_configuration, "write wificalling configuration failed\n"},
         {jorn_write_wificalling_interface_configuration,
          "write web-interface configuration failed\n"}},
        JORN_HERE);
}

void jorn_load_wificalling_configurations() {
    JORN_DEBUG("JORN loading Wifi-Calling configurations...\n");
    jorn_process_wificalling_policy_flush();
    if (!restore(JORN_HERE))
        return;
    for (const wificalling_intf &binding : jorn_state.wificalling_intf_list) {
        if (binding.ifname[0] == '\0' || binding.enable != 1)
            continue;
        JORN_DEBUG(" set wificalling_enable for interface %s\n",
                   printable_text(binding.ifname).c_str());
        if (psms_av_set_dev_wfc(binding.ifname, 1) != 0)
            JORN_ERROR("Wi-Fi calling isn't switched on for %s: the platform wasn't told\n",
                       printable_text(binding.ifname).c_str());
    }
}

bool is_storable(const wificalling_policy_wire &asked) {
    const log_origin from = JORN_AS("jorn_process_wificalling_policy_cfg");
    char what[96];
    snprintf(what, sizeof what, "carrier %.64s", printable_text(field_text(asked.pname)).c_str());
    // An update takes the first ePDG, whatever the count says, and no other text.
    if (find_carrier(field_text(asked.pname)) != nullptr)
        return is_storable(field_text(asked.epdg[0].fqdn), WIFICALLING_POLICY_MARKERS, what, "epdg",
                           from);
    return is_storable(asked, WIFICALLING_POLICY_LINE, WIFICALLING_POLICY_MARKERS, what, from);
}

bool is_storable(const wificalling_intf_wire &asked) {
    if (asked.enable == 0)
        return true;
    char what[64];
    snprintf(what, sizeof what, "binding of %.18s",
             printable_text(field_text(asked.ifname)).c_str());
    return is_storable(asked, WIFICALLING_INTF_LINE, WIFICALLING_INTF_MARKERS, what,
                       JORN_AS("jorn_process_wificalling_intf_config"));
}

int jorn_write_wificalling_policy_configuration(FILE *file) {
    section_writer writer(file, "write configuration file error!\n", JORN_HERE);
    writer.write_marker(WIFICALLING_POLICIES_BEGIN);
    write_records<WIFICALLING_BLOCK_LIMIT>(writer, jorn_state.wificalling_policy_list,
                                           wificalling_policy_to_text);
    writer.write_marker(WIFICALLING_POLICIES_END);
    return writer.result();
}

int jorn_write_wificalling_interface_configuration(FILE *file) {
    section_writer writer(file, "write interface configuration file error!\n", JORN_HERE);
    writer.write("\n");
    writer.write_marker(WIFICALLING_INTFS_BEGIN);
    for (const wificalling_intf &binding : jorn_state.wificalling_intf_list) {
        char line[512]; // holds the longest there is
        size_t length = 0;
        text_appender to(line, &length, sizeof line);
        write_line<wificalling_intf_wire>(to, WIFICALLING_INTF_LINE, binding);
        writer.write({line, length});
    }
    writer.write_marker(WIFICALLING_INTFS_END);
    return writer.result();
}

int wificalling_policy_to_text(char *text, const wificalling_policy_wire *policy, size_t *length,
                               size_t limit) {
    text_appender to(text, length, limit);
    to.append(WIFICALLING_BLOCK_BEGIN);
    to.append("\n");
    write_line(to, WIFICALLING_POLICY_LINE, *policy);
    to.append(WIFICALLING_BLOCK_END);
    to.append("\n\n");
    return to.result();
}

void jorn_parse_wificalling_policy_config(std::string_view line, wificalling_policy_wire *record) {
    read_line(line, WIFICALLING_POLICY_LINE, *record,
              count_watch<uint8_t>(EPDGS_PER_POLICY, JORN_HERE));
}

void jorn_parse_wificalling_intf_config(std::string_view line) {
    wificalling_intf_wire binding = {};
    read_line(line, WIFICALLING_INTF_LINE, binding,
              count_watch<int64_t>(PROFILES_PER_INTF, JORN_HERE));
    jorn_process_wificalling_intf_config(binding);
}
