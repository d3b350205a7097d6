#include "jornctl/client/listings.h"

#include "control/lines/arc_listing.h"
#include "core/dns/dns_listing.h"
#include "jornctl/base/complain.h"
#include "jornctl/base/failure.h"
#include "userapps/lines/userapps_listing.h"
#include "webfilter/lines/web_listing.h"
#include "wificalling/lines/wificalling_listing.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <system_error>

namespace jornctl {
namespace {

constexpr size_t SHOWN_CELL_MAX = 60;

[[noreturn]] void fail_at(std::string_view cell) {
    throw refused("the daemon's listing can't be read at \"" +
                  std::string(cell.substr(0, SHOWN_CELL_MAX)) + '"');
}

// Where a cell's value goes in the JSON; a null path where it says nothing. On the way, "+" is a
// new element of an array and "." the last one.
struct reading {
    const listing_cell *cell;
    const char *path;
    ordered_json (*value)(std::string_view text);
    const char *items = nullptr; // where each of the lines goes that follow behind a tab
};

ordered_json text(std::string_view from) {
    return from;
}

template <int Base>
ordered_json number(std::string_view from) {
    int64_t read = 0;
    if (std::from_chars(from.data(), from.data() + from.size(), read, Base).ec != std::errc())
        fail_at(from);
    return read;
}

ordered_json enabled(std::string_view from) {
    return from == LISTED_ENABLED;
}

ordered_json yes(std::string_view) {
    return true;
}

ordered_json nothing(std::string_view) {
    return nullptr;
}

ordered_json no_items(std::string_view) {
    return ordered_json::array();
}

std::vector<std::string_view> split(std::string_view from, char separator) {
    std::vector<std::string_view> parts;
    while (true) {
        const size_t end = from.find(separator);
        parts.push_back(from.substr(0, end));
        if (end == std::string_view::npos)
            return parts;
        from.remove_prefix(end + 1);
    }
}

std::string_view without_blanks(std::string_view from) {
    const size_t begin = std::min(from.find_first_not_of(' '), from.size());
    return from.substr(begin, from.find_last_not_of(' ') + 1 - begin);
}

// Without what divides cells.
std::string_view without_ends(std::string_view from) {
    return from.substr(0, from.find_first_of("\n\t"));
}

ordered_json addresses(std::string_view from) {
    ordered_json read = ordered_json::array();
    for (const std::string_view part : split(from, LISTED_EPDG_SEPARATOR))
        read.push_back(without_blanks(part));
    return read;
}

using readings = std::span<const reading>;

constexpr const userdef_listing &USERDEF = USERDEF_LISTING;
constexpr reading APPLICATION_READINGS[] = {
    {&USERDEF.title, nullptr, nothing},
    {&LISTED_NUMBER, nullptr, nothing},
    {&USERDEF.bitmap, "/+/bitmap", number<16>},
    {&USERDEF.dst_family, "/./dst_family", text},
    {&USERDEF.dst_ip, "/./dst_ip", text},
    {&USERDEF.netmask, "/./netmask", text},
    {&USERDEF.dst_port, "/./dst_port", number<10>},
    {&USERDEF.protocol, "/./protocol", text},
    {&USERDEF.app_name, "/./app_name", text},
    {&USERDEF.app_id, "/./app_id", number<10>},
    {&USERDEF.cat_id, "/./cat_id", number<10>},
};

constexpr reading DNS_READINGS[] = {
    {&DNS_LISTING.title, "/entries", no_items},
    {&LISTED_TOTAL, "/total", number<10>},
    {&LISTED_NUMBER, nullptr, nothing},
    {&DNS_LISTING.ip, "/entries/+/ip", text},
    {&DNS_LISTING.app_name, "/entries/./app_name", text},
    {&DNS_LISTING.age, "/entries/./aging_time", number<10>},
};

constexpr const port_app_listing &PORT_APP = PORT_APP_LISTING;
constexpr reading PORT_READINGS[] = {
    {&PORT_APP.title, "/entries", no_items},
    {&LISTED_TOTAL, "/total", number<10>},
    {&LISTED_NUMBER, nullptr, nothing},
    {&PORT_APP.app_name, "/entries/+/app_name", text},
    {&PORT_APP.begin_port, "/entries/./begin_port", number<10>},
    {&PORT_APP.end_port, "/entries/./end_port", number<10>},
    {&PORT_APP.tcp_flag, "/entries/./tcp_flag", number<10>},
    {&PORT_APP.udp_flag, "/entries/./udp_flag", number<10>},
};

constexpr reading UTP_READINGS[] = {
    {&UTP_LISTING.none, nullptr, nothing},
    {&UTP_LISTING.name, "/+/name", text},
    {&UTP_LISTING.id, "/./id", number<10>},
    {&UTP_LISTING.arc_policy, "/./arc_policy", text},
    {&UTP_LISTING.web_policy, "/./web_policy", text},
};

constexpr const priority_listing &PRIORITY = PRIORITY_LISTING;
constexpr reading PRIORITY_READINGS[] = {
    {&PRIORITY.name, "/name", text},
    {&PRIORITY.app_id, "/rules/+/app_id", number<10>},
    {&PRIORITY.cat_id, "/rules/./cat_id", number<10>}, // the user-defined one, too
    {&PRIORITY.app_name, "/rules/./app_name", text},
    {&PRIORITY.cat_name, "/rules/./cat_name", text},
    {&PRIORITY.deny, "/rules/./deny", yes},
    {&PRIORITY.mark_kind, "/rules/./qos/mark/kind", text},
    {&PRIORITY.mark_type, "/rules/./qos/mark/type", text},
    {&PRIORITY.classify, nullptr, nothing},
    {&PRIORITY.classify_type, "/rules/./qos/classify", text},
    {&PRIORITY.rate_up, "/rules/./rate_up", number<10>},
    {&PRIORITY.rate_down, "/rules/./rate_down", number<10>},
};

constexpr reading INTERFACE_READINGS[] = {
    {&WEB_INTF_LISTING.enable, "/enable", enabled},
    {&WEB_INTF_LISTING.policy_uuid, "/policy/uuid", text},
    {&WEB_INTF_LISTING.no_policy, "/policy", nothing},
};

constexpr reading WEB_UTP_READINGS[] = {
    {&WEB_UTP_LISTING.name, "/name", text},
    {&WEB_UTP_LISTING.id, "/id", number<10>},
    {&WEB_UTP_LISTING.policy_name, "/policy/name", text},
    {&WEB_UTP_LISTING.policy_uuid, "/policy/uuid", text},
    {&WEB_UTP_LISTING.no_policy, "/policy", nothing},
};

constexpr const web_policy_listing &WEB_POLICY = WEB_POLICY_LISTING;
constexpr reading WEB_POLICY_READINGS[] = {
    {&WEB_POLICY.filter_type, "/policy/filter_type", text},
    {&WEB_POLICY.num_categories, "/policy/categories", no_items},
    {&WEB_POLICY.categories, nullptr, nothing, "/policy/categories/+"},
    {&WEB_POLICY.no_whitelist, "/policy/whitelist", no_items},
    {&WEB_POLICY.whitelist, "/policy/whitelist", no_items, "/policy/whitelist/+"},
    {&WEB_POLICY.no_blacklist, "/policy/blacklist", no_items},
    {&WEB_POLICY.blacklist, "/policy/blacklist", no_items, "/policy/blacklist/+"},
    {&WEB_POLICY.no_google, "/policy/google_vip", nothing},
    {&WEB_POLICY.google_vip, "/policy/google_vip", text},
    {&WEB_POLICY.no_youtube, "/policy/youtube_vip", nothing},
    {&WEB_POLICY.youtube_vip, "/policy/youtube_vip", text},
    {&WEB_POLICY.no_bing, "/policy/bing_vip", nothing},
    {&WEB_POLICY.bing_vip, "/policy/bing_vip", text},
};

// Behind its number.
ordered_json profile(std::string_view from) {
    const std::string_view label = WIFICALLING_LISTING.profile.label;
    const size_t at = from.find(label);
    if (at == std::string_view::npos)
        fail_at(from);
    return from.substr(at + label.size());
}

constexpr const wificalling_listing &WIFICALLING = WIFICALLING_LISTING;
constexpr reading WIFICALLING_READINGS[] = {
    {&WIFICALLING.ifname, "/+/ifname", text},
    {&WIFICALLING.number, "/./carriers/+/pname", profile},
    {&WIFICALLING.priority, "/./carriers/./priority", number<10>},
    {&WIFICALLING.fqdns, "/./carriers/./fqdn", text},
    {&WIFICALLING.ipaddrs, "/./carriers/./ipaddr", addresses},
};

// A place in the JSON, made where it isn't there yet.
ordered_json &place_at(ordered_json &root, std::string_view path) {
    ordered_json *at = &root;
    for (const std::string_view key : split(path.substr(1), '/')) {
        if (key == "+")
            at = &at->emplace_back();
        else if (key == "." && !at->empty())
            at = &at->back();
        else if (key != ".")
            at = &(*at)[std::string(key)];
        else
            fail_at(path);
    }
    return *at;
}

class reader {
public:
    reader(ordered_json &to, std::span<const readings> known) : to_(to), known_(known) {}

    void read(std::string_view listing_text) {
        for (const std::string_view line : split(listing_text, '\n'))
            read_line(line);
    }

private:
    void read_line(std::string_view line) {
        if (items_ != nullptr && line.starts_with('\t')) {
            place_at(to_, items_) = line.substr(1);
            return;
        }
        items_ = nullptr;
        for (const std::string_view part : split(line, '\t')) {
            if (!part.empty())
                read_cell(part);
        }
    }

    void read_cell(std::string_view part) {
        const reading &found = find(part);
        const std::string_view behind = without_ends(found.cell->behind);
        std::string_view value = part.substr(found.cell->label.size());
        if (value.ends_with(behind))
            value.remove_suffix(behind.size());
        if (found.path != nullptr)
            place_at(to_, found.path) = found.value(value);
        items_ = found.items;
    }

    const reading &find(std::string_view part) const {
        for (const readings table : known_) {
            for (const reading &each : table) {
                if (part.starts_with(each.cell->label))
                    return each;
            }
        }
        fail_at(part);
    }

    ordered_json &to_;
    std::span<const readings> known_;
    const char *items_ = nullptr;
};

template <const auto &...Readings>
ordered_json read_into(ordered_json to, std::string_view from) {
    static constexpr readings KNOWN[] = {Readings...};
    reader(to, KNOWN).read(from);
    return to;
}

template <const auto &Readings>
ordered_json records(std::string_view from) {
    return read_into<Readings>(ordered_json::array(), from);
}

template <const auto &...Readings>
ordered_json object(std::string_view from) {
    return read_into<Readings...>(ordered_json::object(), from);
}

// The names of ePDGs with their addresses; a name with a comma in it leaves nothing to tell which
// is whose, and then the names stay one text.
void join_epdgs(ordered_json &carrier) {
    if (!carrier.contains("fqdn") || !carrier.contains("ipaddr"))
        return;
    const std::string names = carrier["fqdn"].get<std::string>();
    const std::vector<std::string_view> fqdns = split(names, LISTED_EPDG_SEPARATOR);
    const ordered_json ipaddrs = carrier["ipaddr"];
    if (fqdns.size() != ipaddrs.size())
        return;
    carrier.erase("fqdn");
    carrier.erase("ipaddr");
    for (size_t i = 0; i < fqdns.size(); ++i) {
        const bool is_last = i + 1 == fqdns.size(); // a blank stands before it
        carrier["epdg"].push_back(
            {{"fqdn", is_last && fqdns[i].starts_with(' ') ? fqdns[i].substr(1) : fqdns[i]},
             {"ipaddr", ipaddrs[i]}});
    }
}

ordered_json wificalling(std::string_view from) {
    ordered_json read = records<WIFICALLING_READINGS>(from);
    for (ordered_json &binding : read) {
        for (ordered_json &carrier : binding["carriers"])
            join_epdgs(carrier);
    }
    return read;
}

std::string never_cut(std::string_view) {
    return {};
}

// Of a listing that numbers its entries and tells their total.
std::string cut_by_total(std::string_view listing_text) {
    int64_t total = 0;
    int64_t shown = 0;
    for (const std::string_view line : split(listing_text, '\n')) {
        if (line.starts_with(LISTED_TOTAL.label))
            total = number<10>(line.substr(LISTED_TOTAL.label.size())).get<int64_t>();
        shown += line.starts_with(LISTED_NUMBER.label);
    }
    if (total <= shown)
        return {};
    return std::to_string(shown) + " of " + std::to_string(total) + " shown, for want of room";
}

// Of a listing that doesn't tell: `Room` bytes, and the longest piece that is left out as a whole.
template <size_t Room, size_t Piece>
std::string cut_by_size(std::string_view listing_text) {
    if (listing_text.size() + Piece < Room)
        return {};
    return "something may be missing, for there is room for " + std::to_string(Room) + " bytes";
}

// Of a listing with the text of a web policy, which is cut behind a line: its last one is missing
// then.
std::string cut_in_policy(std::string_view listing_text) {
    bool has_policy = false;
    bool is_whole = false;
    for (const std::string_view line : split(listing_text, '\n')) {
        has_policy = has_policy || line.find(WEB_POLICY.num_categories.label) != line.npos;
        is_whole = is_whole || line.starts_with(WEB_POLICY.no_bing.label) ||
                   line.starts_with(WEB_POLICY.bing_vip.label);
    }
    return !has_policy || is_whole ? std::string() : "the policy is cut, for want of room";
}

using enum listing_argument;

constexpr listing LISTINGS[] = {
    {"priority", CMD_CHECK_PRIORITY_REQ, ID,
     "Rules, QoS and rate limits of the ARC policy of UTP ID", object<PRIORITY_READINGS>,
     cut_by_size<PRIORITY_LISTING_SIZE, PRIORITY_PIECE_MAX>},
    {"applications", CMD_USERDEF_SHOW_REQ, NONE, "The user-defined applications",
     records<APPLICATION_READINGS>, never_cut},
    {"dns", CMD_DNS_CACHE_SHOW_REQ, NONE, "The DNS cache", object<DNS_READINGS>, cut_by_total},
    {"port-services", CMD_PORT_APP_SHOW_REQ, NONE, "The applications of the port-service file",
     object<PORT_READINGS>, cut_by_total},
    {"utps", CMD_UTP_SHOW_REQ, NONE, "The ARC UTP table with the ARC and web policies",
     records<UTP_READINGS>, never_cut},
    {"url", CMD_INTF_URL_POLICY_SHOW_REQ, INTERFACE, "URL filtering and web policy of INTERFACE",
     object<INTERFACE_READINGS, WEB_POLICY_READINGS>, cut_in_policy},
    {"utp-web", CMD_UTP_WEB_POLICY_SHOW_REQ, ID, "The web UTP ID with its web policy",
     object<WEB_UTP_READINGS, WEB_POLICY_READINGS>, cut_in_policy},
    {"wifi-calling", CMD_WIFICALLING_INTF_SHOW_REQ, NONE,
     "The interfaces with Wi-Fi calling and their carriers", wificalling,
     cut_by_size<REPLY_SIZE - 1, WIFICALLING_BINDING_TEXT>},
};

// How answers refuse.
constexpr struct {
    command_number command;
    const listing_cell *cell;
} REFUSALS[] = {
    {CMD_CHECK_PRIORITY_REQ, &PRIORITY.invalid},
    {CMD_INTF_URL_POLICY_SHOW_REQ, &WEB_INTF_LISTING.absent},
    {CMD_UTP_WEB_POLICY_SHOW_REQ, &WEB_UTP_LISTING.invalid},
    {CMD_UTP_WEB_POLICY_SHOW_REQ, &WEB_UTP_LISTING.absent},
};

// What records have in any answer that wasn't broken off. Behind a null there is no more.
constexpr struct {
    command_number command;
    std::array<const char *, 4> paths;
} NEEDED[] = {
    {CMD_CHECK_PRIORITY_REQ, {"/name"}},
    {CMD_UTP_SHOW_REQ, {"/name", "/id", "/arc_policy", "/web_policy"}},
    {CMD_INTF_URL_POLICY_SHOW_REQ, {"/enable", "/policy/uuid"}},
    {CMD_UTP_WEB_POLICY_SHOW_REQ, {"/name", "/policy/name", "/policy/uuid"}},
};

bool says(const ordered_json &record, std::string_view path) {
    const ordered_json *at = &record;
    for (const std::string_view key : split(path.substr(1), '/')) {
        const auto found = at->find(std::string(key));
        if (found == at->end())
            return false;
        at = &*found;
        if (at->is_null())
            break;
    }
    return true;
}

void check_record(const ordered_json &record, command_number command) {
    for (const auto &each : NEEDED) {
        for (const char *path : each.paths) {
            if (each.command == command && path != nullptr && !says(record, path))
                throw refused("the daemon's answer to command " + std::to_string(command) +
                              " broke off");
        }
    }
}

// Whether an empty answer means an empty table.
bool may_be_empty(uint32_t command) {
    return command == CMD_WIFICALLING_INTF_SHOW_REQ;
}

} // namespace

std::span<const listing> listings() {
    return LISTINGS;
}

const listing &listing_of(command_number command) {
    return *std::ranges::find(LISTINGS, command, &listing::command);
}

std::string refusal_in(uint32_t command, std::string_view reply) {
    for (const auto &each : REFUSALS) {
        if (each.command != command || !reply.starts_with(each.cell->before))
            continue;
        const std::string_view said = reply.substr(each.cell->before.size());
        if (said.starts_with(each.cell->label) && said.ends_with(each.cell->behind))
            return std::string(without_blanks(without_ends(said)));
    }
    return {};
}

void check_answer(const std::string &reply, uint32_t command) {
    const std::string refusal = refusal_in(command, reply);
    if (!refusal.empty())
        throw refused("the daemon answers: " + refusal);
    if (reply.empty() && !may_be_empty(command))
        throw refused("the daemon has no answer to command " + std::to_string(command));
}

std::string ask(const client &daemon, const listing &wanted, const std::string &payload) {
    std::string reply = daemon.send({wanted.command, payload});
    check_answer(reply, wanted.command);
    const std::string cut = wanted.cut(reply);
    if (!cut.empty())
        complain(std::string("warning: ") + wanted.word + ": " + cut);
    return reply;
}

ordered_json listed(const client &daemon, command_number command) {
    const listing &wanted = listing_of(command);
    ordered_json records = wanted.parse(ask(daemon, wanted, {}));
    for (const ordered_json &each : records)
        check_record(each, command);
    return records;
}

std::optional<ordered_json> listed(const client &daemon, command_number command,
                                   const std::string &payload) {
    const std::string reply = daemon.send({command, payload});
    if (!refusal_in(command, reply).empty())
        return std::nullopt;
    ordered_json record = listing_of(command).parse(reply);
    check_record(record, command);
    return record;
}

} // namespace jornctl
