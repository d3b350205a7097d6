#include "jornctl/client/commands.h"

#include "jornctl/base/failure.h"
#include "jornctl/fields/arc_fields.h"
#include "jornctl/fields/shown_fields.h"
#include "jornctl/fields/userapps_fields.h"
#include "jornctl/fields/web_fields.h"
#include "jornctl/fields/wificalling_fields.h"

namespace jornctl {
namespace {

constexpr field<word_payload> ID_FIELDS[] = {
    {"id", at<&word_payload::word, number<>>, REQUIRED},
};
constexpr field<word_payload> DEBUG_FIELDS[] = {
    {"debug", at<&word_payload::word, flag>, REQUIRED},
};
constexpr field<arc_policy_log_cfg> LOG_POLICY_FIELDS[] = {
    {"name", at<&arc_policy_log_cfg::name, text<>>, REQUIRED},
    {"log_enable", at<&arc_policy_log_cfg::value, flag>, REQUIRED},
};

// How a payload is shown. A short one counts as filled up with zeros.
struct payload_form {
    size_t (*size)(std::string_view payload);
    ordered_json (*words)(std::string_view payload);
};

template <typename Record>
Record record_at(std::string_view bytes) {
    Record read = {};
    memcpy(&read, bytes.data(), std::min(bytes.size(), sizeof read));
    return read;
}

constexpr payload_form EMPTY = {
    [](std::string_view) { return size_t{0}; },
    [](std::string_view) { return ordered_json(); },
};

template <typename Record, const auto &Rows, size_t Size = sizeof(Record)>
constexpr payload_form ONE = {
    [](std::string_view) { return Size; },
    [](std::string_view payload) { return record<Rows>::words(record_at<Record>(payload)); },
};

int32_t application_count(std::string_view payload) {
    return std::clamp(record_at<int32_t>(payload), 0, USERDEF_APPS_MAX);
}

// A count, and so many records; or those that are there, under a count that the daemon refuses.
constexpr payload_form APPLICATIONS = {
    [](std::string_view payload) {
        return sizeof(int32_t) +
               static_cast<size_t>(application_count(payload)) * sizeof(userdef_app);
    },
    [](std::string_view payload) {
        std::vector<userdef_app> applications;
        std::string_view left = payload.substr(std::min(payload.size(), sizeof(int32_t)));
        for (int32_t i = 0; i < application_count(payload) && !left.empty(); ++i) {
            applications.push_back(record_at<userdef_app>(left));
            left.remove_prefix(std::min(left.size(), sizeof(userdef_app)));
        }
        return ordered_json{
            {"count", record_at<int32_t>(payload)},
            {"applications",
             list<record<APPLICATION_FIELDS>, USERDEF_APPS_MAX>::words(applications)}};
    },
};

// The name of an interface, as long as the payload.
constexpr payload_form INTERFACE_NAME = {
    [](std::string_view payload) { return payload.size(); },
    [](std::string_view payload) {
        return ordered_json{{"ifname", payload}};
    },
};

// The files that CMD_WRITE_CFG_REQ writes.
using saved_files = uint8_t;
constexpr saved_files NO_FILE = 0;
constexpr saved_files POLICY_CFG = 1;
constexpr saved_files WEB_FILTER = 2;

struct command_row {
    command_number number;
    const char *name;
    payload_form payload;
    saved_files written = NO_FILE;
    saved_files outdated = NO_FILE; // its tables change and it isn't written
};

constexpr command_row COMMANDS[] = {
    {CMD_CHECK_PRIORITY_REQ, "CMD_CHECK_PRIORITY_REQ", ONE<word_payload, ID_FIELDS>},
    {CMD_POLICY_USERDEF_CFG_REQ, "CMD_POLICY_USERDEF_CFG_REQ", APPLICATIONS, POLICY_CFG},
    {CMD_USERDEF_SHOW_REQ, "CMD_USERDEF_SHOW_REQ", EMPTY},
    {CMD_POLICY_CLEAN, "CMD_POLICY_CLEAN", EMPTY, NO_FILE, POLICY_CFG},
    {CMD_ROAM_NOTIFY_REQ, "CMD_ROAM_NOTIFY_REQ", ONE<roam_notify, ROAM_FIELDS>},
    {CMD_DNS_CACHE_SHOW_REQ, "CMD_DNS_CACHE_SHOW_REQ", EMPTY},
    {CMD_PORT_SERVICE_CFG_REQ, "CMD_PORT_SERVICE_CFG_REQ", EMPTY},
    {CMD_PORT_APP_SHOW_REQ, "CMD_PORT_APP_SHOW_REQ", EMPTY},
    {CMD_WRITE_CFG_REQ, "CMD_WRITE_CFG_REQ", EMPTY, POLICY_CFG | WEB_FILTER},
    {CMD_ARC_UTP_CFG_REQ, "CMD_ARC_UTP_CFG_REQ", ONE<utp_entry_wire, UTP_FIELDS>, POLICY_CFG},
    {CMD_WEB_UTP_CFG_REQ, "CMD_WEB_UTP_CFG_REQ", ONE<utp_entry_wire, UTP_FIELDS>, POLICY_CFG},
    {CMD_UTP_FLUSH_REQ, "CMD_UTP_FLUSH_REQ", EMPTY},
    {CMD_ARC_POLICY_CFG_REQ, "CMD_ARC_POLICY_CFG_REQ", ONE<arc_policy_wire, POLICY_FIELDS>,
     POLICY_CFG},
    {CMD_ARC_POLICY_FLUSH_REQ, "CMD_ARC_POLICY_FLUSH_REQ", EMPTY, NO_FILE, POLICY_CFG},
    {CMD_UTP_SHOW_REQ, "CMD_UTP_SHOW_REQ", EMPTY},
    {CMD_ARC_POLICY_LOG_CFG_REQ, "CMD_ARC_POLICY_LOG_CFG_REQ",
     ONE<arc_policy_log_cfg, LOG_POLICY_FIELDS>, POLICY_CFG},
    {CMD_WEB_POLICY_CFG_REQ, "CMD_WEB_POLICY_CFG_REQ", ONE<web_policy_wire, WEB_POLICY_FIELDS>,
     WEB_FILTER},
    {CMD_WEB_POLICY_FLUSH_REQ, "CMD_WEB_POLICY_FLUSH_REQ", EMPTY, NO_FILE, WEB_FILTER},
    {CMD_WEB_INTF_CFG_REQ, "CMD_WEB_INTF_CFG_REQ", ONE<web_intf_wire, WEB_INTF_FIELDS>, WEB_FILTER},
    {CMD_UF_AGENT_REPLY, "CMD_UF_AGENT_REPLY", ONE<uf_agent_reply, LATE_ANSWER_FIELDS>},
    {CMD_INTF_URL_POLICY_SHOW_REQ, "CMD_INTF_URL_POLICY_SHOW_REQ", INTERFACE_NAME},
    {CMD_UTP_WEB_POLICY_SHOW_REQ, "CMD_UTP_WEB_POLICY_SHOW_REQ", ONE<word_payload, ID_FIELDS>},
    {CMD_DEBUG_CFG_REQ, "CMD_DEBUG_CFG_REQ", ONE<word_payload, DEBUG_FIELDS>},
    {CMD_WIFICALLING_POLICY_CFG_REQ, "CMD_WIFICALLING_POLICY_CFG_REQ",
     ONE<wificalling_policy_wire, CARRIER_FIELDS, WIFICALLING_POLICY_PAYLOAD>},
    {CMD_WIFICALLING_INTF_CFG_REQ, "CMD_WIFICALLING_INTF_CFG_REQ",
     ONE<wificalling_intf_wire, WIFICALLING_INTF_FIELDS>},
    {CMD_WIFICALLING_INTF_SHOW_REQ, "CMD_WIFICALLING_INTF_SHOW_REQ", EMPTY},
    {CMD_WIFICALLING_POLICY_FLUSH_REQ, "CMD_WIFICALLING_POLICY_FLUSH_REQ", EMPTY},
    {CMD_UT_CASE_REQ, "CMD_UT_CASE_REQ", ONE<word_payload, ID_FIELDS>},
};

const command_row &row_of(uint32_t number) {
    for (const command_row &row : COMMANDS) {
        if (row.number == number)
            return row;
    }
    throw refused("jornctl knows no fields of command " + std::to_string(number));
}

// Records have zeros between and behind what they hold.
bool is_text(std::string_view bytes) {
    return !bytes.empty() && std::ranges::all_of(bytes, [](unsigned char byte) {
        return byte == '\t' || byte == '\n' || byte == '\r' || (byte >= ' ' && byte < 0xF8);
    });
}

std::string described_length(const command &sent, const command_row &row) {
    const size_t length = sent.payload.size();
    const size_t expected = row.payload.size(sent.payload);
    std::string text = std::to_string(length) + " bytes";
    if (length < expected)
        text += " of " + std::to_string(expected) + "; the others are shown as zeros";
    if (length > expected)
        text += ", " + std::to_string(length - expected) + " of them behind its end";
    return text;
}

} // namespace

bool leave_file_behind(const std::vector<command> &commands) {
    saved_files behind = NO_FILE;
    for (const command &each : commands) {
        const command_row &row = row_of(each.number);
        behind = static_cast<saved_files>((behind | row.outdated) & ~row.written);
    }
    return behind != NO_FILE;
}

std::string describe(const command &sent) {
    const command_row &row = row_of(sent.number);
    if (row.payload.words != INTERFACE_NAME.words && is_text(sent.payload))
        throw refused(std::string("this is a text, and the payload of ") + row.name +
                      " is a record's bytes, as raw sends them");
    std::string text =
        std::to_string(row.number) + ' ' + row.name + ", " + described_length(sent, row) + '\n';
    const ordered_json words = row.payload.words(sent.payload);
    if (!words.is_null())
        text += to_text(words);
    return text;
}

} // namespace jornctl
