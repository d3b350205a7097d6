#include "jornctl/memory/saved_files.h"

#include "control/lines/arc_lines.h"
#include "control/records/commands.h"
#include "core/text/text.h"
#include "jornctl/base/files.h"
#include "jornctl/fields/arc_fields.h"
#include "userapps/lines/userdef_line.h"
#include "webfilter/lines/web_lines.h"
#include "wificalling/lines/wificalling_lines.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <utility>

namespace jornctl {
namespace {

constexpr char POLICY_FILE_NAME[] = "jorn_config.txt";
constexpr char WEB_FILE_NAME[] = "web_filter_config.txt";
constexpr char WIFICALLING_FILE_NAME[] = "wificalling_config.txt";

std::optional<std::string> content_of(const std::string &folder, const char *name) {
    return read_regular_file(folder + '/' + name);
}

// 64-bit FNV-1a.
std::string hash_of(std::string_view bytes) {
    uint64_t hash = 0xCBF29CE484222325;
    for (const char byte : bytes)
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    char text[17];
    snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    return text;
}

// What has been read, and the block that isn't whole yet.
struct reading_state {
    daemon_tables tables;
    arc_policy_wire policy = {};
    size_t rules = 0;
    std::vector<userdef_app> applications;
    web_policy_wire web_policy = {};
    wificalling_policy_wire carrier = {};
};

void begin_policy(std::string_view line, reading_state &state) {
    state.policy = {};
    state.rules = 0;
    read_line(line, ARC_HEADER_LINE, state.policy);
}

void take_rule(std::string_view line, reading_state &state) {
    if (state.rules < ARC_RULES_PER_POLICY)
        read_line(line, ARC_RULE_LINE, state.policy.rules[state.rules]);
    ++state.rules;
}

void end_policy(std::string_view, reading_state &state) {
    if (state.rules != 0)
        state.tables.take({CMD_ARC_POLICY_CFG_REQ, record_bytes(state.policy)});
    state.rules = 0;
}

void take_application(std::string_view line, reading_state &state) {
    if (std::cmp_greater_equal(state.applications.size(), USERDEF_APPS_MAX))
        return;
    read_line(line, USERDEF_LINE, state.applications.emplace_back());
    state.applications.back().bitmap = 0; // the daemon works it out
}

void end_applications(std::string_view, reading_state &state) {
    state.tables.applications = state.applications;
}

void begin_web_policy(std::string_view, reading_state &state) {
    state.web_policy = {};
}

void take_web_policy(std::string_view line, reading_state &state) {
    read_line(line, WEB_POLICY_LINE, state.web_policy);
    web_policy_wire &read = state.web_policy;
    read.num_categories = std::min<uint8_t>(read.num_categories, WEB_CATEGORIES_MAX);
    read.num_whitelist = std::min<uint8_t>(read.num_whitelist, WEB_PATTERNS_MAX);
    read.num_blacklist = std::min<uint8_t>(read.num_blacklist, WEB_PATTERNS_MAX);
    std::fill(read.categories + read.num_categories, std::end(read.categories), 0);
}

void end_web_policy(std::string_view, reading_state &state) {
    state.tables.take({CMD_WEB_POLICY_CFG_REQ, record_bytes(state.web_policy)});
}

// The line of the end marker, which is read as a binding, too, has no operation.
void take_web_interface(std::string_view line, reading_state &state) {
    web_intf_wire binding = {};
    read_line(line, WEB_INTF_LINE, binding);
    state.tables.take({CMD_WEB_INTF_CFG_REQ, record_bytes(binding)});
}

void begin_carrier(std::string_view, reading_state &state) {
    state.carrier = {};
}

void read_carrier(std::string_view line, reading_state &state) {
    read_line(line, WIFICALLING_POLICY_LINE, state.carrier);
}

void end_carrier(std::string_view, reading_state &state) {
    state.tables.take({CMD_WIFICALLING_POLICY_CFG_REQ, record_bytes(state.carrier)});
}

// One that has lost its carriers is there, too, until a start refuses it.
void read_wificalling_interface(std::string_view line, reading_state &state) {
    wificalling_intf_wire binding = {};
    read_line(line, WIFICALLING_INTF_LINE, binding);
    auto &all = state.tables.wificalling_interfaces;
    if (all.size() < WIFICALLING_INTFS_MAX &&
        find_wificalling_interface(state.tables, binding.ifname) == nullptr)
        all.push_back({binding, {}});
    state.tables.take({CMD_WIFICALLING_INTF_CFG_REQ, record_bytes(binding)});
}

// As the daemon reads them: the first row counts that stands at the place and whose marker the line
// holds.
struct file_row {
    int at;
    std::string_view marker;
    void (*take)(std::string_view line, reading_state &state);
    int then_at;
};

enum policy_place { BEFORE, POLICIES, HEADER, RULES, BETWEEN, APPLICATIONS, BEHIND };
constexpr file_row POLICY_ROWS[] = {
    {BEFORE, ARC_POLICIES_BEGIN, nullptr, POLICIES},
    {POLICIES, ARC_POLICIES_END, nullptr, BETWEEN},
    {POLICIES, ARC_BLOCK_BEGIN, nullptr, HEADER},
    {HEADER, "", begin_policy, RULES},
    {RULES, ARC_BLOCK_END, end_policy, POLICIES},
    {RULES, "", take_rule, RULES},
    {BETWEEN, USERDEFS_BEGIN, nullptr, APPLICATIONS},
    {APPLICATIONS, USERDEFS_END, end_applications, BEHIND},
    {APPLICATIONS, "", take_application, APPLICATIONS},
};

enum block_place { FIRST, BLOCKS, BLOCK, GAP, BINDINGS };
constexpr file_row WEB_ROWS[] = {
    {FIRST, WEB_POLICIES_BEGIN, nullptr, BLOCKS},
    {BLOCKS, WEB_POLICIES_END, nullptr, GAP},
    {BLOCKS, WEB_BLOCK_BEGIN, begin_web_policy, BLOCK},
    {BLOCK, WEB_BLOCK_END, end_web_policy, BLOCKS},
    {BLOCK, "", take_web_policy, BLOCK},
    {GAP, WEB_INTFS_BEGIN, nullptr, BINDINGS},
    {BINDINGS, "", take_web_interface, BINDINGS},
};

constexpr file_row WIFICALLING_ROWS[] = {
    {FIRST, WIFICALLING_POLICIES_BEGIN, nullptr, BLOCKS},
    {BLOCKS, WIFICALLING_POLICIES_END, nullptr, GAP},
    {BLOCKS, WIFICALLING_BLOCK_BEGIN, begin_carrier, BLOCK},
    {BLOCK, WIFICALLING_BLOCK_END, end_carrier, BLOCKS},
    {BLOCK, "", read_carrier, BLOCK},
    {GAP, WIFICALLING_INTFS_BEGIN, nullptr, BINDINGS},
    {BINDINGS, WIFICALLING_INTFS_END, nullptr, BINDINGS},
    {BINDINGS, "", read_wificalling_interface, BINDINGS},
};

constexpr struct {
    const char *name;
    std::span<const file_row> rows;
} FILES[] = {
    {POLICY_FILE_NAME, POLICY_ROWS},
    {WEB_FILE_NAME, WEB_ROWS},
    {WIFICALLING_FILE_NAME, WIFICALLING_ROWS},
};

void read_rows(std::string_view text, std::span<const file_row> rows, reading_state &state) {
    int at = rows.front().at;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const auto row = std::ranges::find_if(rows, [&](const file_row &each) {
            return each.at == at && contains_ignoring_case(line, each.marker);
        });
        if (row == rows.end())
            continue;
        if (row->take != nullptr)
            row->take(line, state);
        at = row->then_at;
    }
}

// What files hold of the tables: no links, no names and uuids of ARC policies, none without rules.
daemon_tables savable(daemon_tables of) {
    std::erase_if(of.policies, [](const arc_policy_wire &each) {
        return !is_written(each.rules[0]) || !fits_policy_file(each);
    });
    for (arc_policy_wire &each : of.policies) {
        copy_text(each.name, "");
        copy_text(each.uuid, "");
    }
    of.utps = of.web_utps = {};
    of.arc_enabled = false;
    of.safe_search.clear();
    for (web_policy_wire &each : of.web_policies)
        each.utp_id = 0;
    for (linked_web_interface &each : of.web_interfaces)
        each.policy.reset();
    for (linked_wificalling_interface &each : of.wificalling_interfaces) {
        each.carriers = {};
        memset(each.binding.profile_alt, 0, sizeof each.binding.profile_alt);
    }
    return of;
}

} // namespace

file_hashes hash_saved_files(const std::string &folder) {
    file_hashes hashes;
    for (const auto &each : FILES) {
        const std::optional<std::string> content = content_of(folder, each.name);
        hashes[each.name] = content ? std::optional(hash_of(*content)) : std::nullopt;
    }
    return hashes;
}

daemon_tables tables_in_files(const std::string &folder) {
    reading_state state;
    for (const auto &each : FILES) {
        if (const std::optional<std::string> content = content_of(folder, each.name))
            read_rows(*content, each.rows, state);
    }
    return std::move(state.tables);
}

bool are_saved(const daemon_tables &tables, const std::string &folder) {
    const daemon_tables held = savable(tables_in_files(folder));
    const daemon_tables wanted = savable(tables);
    return same_arc(held, wanted) && same_applications(held, wanted) && same_web(held, wanted) &&
           (tables.wificalling_file_behind || same_wificalling(held, wanted));
}

} // namespace jornctl
