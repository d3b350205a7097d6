#include "jornctl/client/listings.h"

#include "jornctl/base/complain.h"
#include "jornctl/base/failure.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace jornctl {
namespace {

constexpr size_t SHOWN_CELL_MAX = 60;

[[noreturn]] void fail_at(std::string_view cell) {
    throw refused("the daemon's listing can't be read at \"" +
                  std::string(cell.substr(0, SHOWN_CELL_MAX)) + '"');
}

// Listings are made of cells, which line feeds and tabs divide; no value holds either. A cell is a
// label with a value behind it.
struct cell {
    const char *label;
    const char *behind; // the value, where something is
    // Where the value goes in the JSON; null where it says nothing. On the way, "+" is a new
    // element of an array and "." the last one.
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
    return from == "Enable";
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

ordered_json addresses(std::string_view from) {
    ordered_json read = ordered_json::array();
    for (const std::string_view part : split(from, ','))
        read.push_back(without_blanks(part));
    return read;
}

using cells = std::span<const cell>;

constexpr cell APPLICATION_CELLS[] = {
    {"====User Defined Applications Policies====", "", nullptr, nothing},
    {"NO:", "", nullptr, nothing},
    {" bitmap: ", " ", "/+/bitmap", number<16>},
    {" dst ip family:", "", "/./dst_family", text},
    {"dst ip:", "", "/./dst_ip", text},
    {" dst netmask:", "", "/./netmask", text},
    {" dst port :", "", "/./dst_port", number<10>},
    {" protocol type:", "", "/./protocol", text},
    {" application name:", " ", "/./app_name", text},
    {" application id: ", "", "/./app_id", number<10>},
    {" category id: ", "", "/./cat_id", number<10>},
};

constexpr cell DNS_CELLS[] = {
    {"====JORN DNS CACHE====", "", "/entries", no_items},
    {"TOTAL:", "", "/total", number<10>},
    {"NO:", "", nullptr, nothing},
    {" dst ip: ", "", "/entries/+/ip", text},
    {" application name: ", "", "/entries/./app_name", text},
    {" aging time: ", "", "/entries/./aging_time", number<10>},
};

constexpr cell PORT_CELLS[] = {
    {"====JORN port app list====", "", "/entries", no_items},
    {"TOTAL:", "", "/total", number<10>},
    {"NO:", "", nullptr, nothing},
    {" application name: ", "", "/entries/+/app_name", text},
    {" begin port: ", "", "/entries/./begin_port", number<10>},
    {" end port: ", "", "/entries/./end_port", number<10>},
    {" tcp proto flag: ", "", "/entries/./tcp_flag", number<10>},
    {" udp proto flag: ", "", "/entries/./udp_flag", number<10>},
};

constexpr cell UTP_CELLS[] = {
    {" No UTP configured! ", "", nullptr, nothing}, {"UTP Name  : ", "", "/+/name", text},
    {"UTP ID    : ", "", "/./id", number<10>},      {"AVC policy: ", "", "/./arc_policy", text},
    {"Web policy: ", "", "/./web_policy", text},
};

constexpr cell PRIORITY_CELLS[] = {
    {" ARC Policy Name: ", " ", "/name", text},
    {"App Id:", "", "/rules/+/app_id", number<10>},
    {"Cat Id:", "", "/rules/./cat_id", number<10>},
    {"App Name:", " ", "/rules/./app_name", text},
    {"Cat Name:", "", "/rules/./cat_name", text},
    {"Rule:Deny ", "", "/rules/./deny", yes},
    {"QoS mark pri:", "", "/rules/./qos/mark/kind", text},
    {"QoS mark type:", "", "/rules/./qos/mark/type", text},
    {"QoS classify pri:Priority", "", nullptr, nothing},
    {"QoS classify type:", "", "/rules/./qos/classify", text},
    {"Ratelimit Uplink:", "", "/rules/./rate_up", number<10>},
    {"Ratelimit Downlink:", "", "/rules/./rate_down", number<10>},
};

constexpr cell INTERFACE_CELLS[] = {
    {"URL Filtering is: ", "", "/enable", enabled},
    {"Policy UUID: ", "", "/policy/uuid", text},
    {"==== No URL Filtering Policy Attached ====", "", "/policy", nothing},
};

constexpr cell WEB_UTP_CELLS[] = {
    {"UTP Name: ", " ", "/name", text},
    {"ID: ", "", "/id", number<10>},
    {"Policy Name: ", " ", "/policy/name", text},
    {"Policy UUID: ", " ", "/policy/uuid", text},
    {"==== No Web Policy Attached ====", "", "/policy", nothing},
};

constexpr cell WEB_POLICY_CELLS[] = {
    {"Filter_Type: ", "", "/policy/filter_type", text},
    {"No of Blocked categories:", "", "/policy/categories", no_items},
    {"Blocked categories:", "", nullptr, nothing, "/policy/categories/+"},
    {"Whitelist-Domains: Not Configured", "", "/policy/whitelist", no_items},
    {"Whitelist-Domains:", "", "/policy/whitelist", no_items, "/policy/whitelist/+"},
    {"Blacklist-Domains: Not Configured", "", "/policy/blacklist", no_items},
    {"Blacklist-Domains:", "", "/policy/blacklist", no_items, "/policy/blacklist/+"},
    {"GoogleSafeSearch: Disable", "", "/policy/google_vip", nothing},
    {"Google Safe Search VIP: ", "", "/policy/google_vip", text},
    {"YoutubeSafeSearch: Disable", "", "/policy/youtube_vip", nothing},
    {"YouTube Safe Search VIP: ", "", "/policy/youtube_vip", text},
    {"BingSafeSearch: Disable", "", "/policy/bing_vip", nothing},
    {"Bing Safe Search VIP: ", "", "/policy/bing_vip", text},
};

constexpr std::string_view PROFILE_LABEL = ") Policy Name: ";

// Behind its number.
ordered_json profile(std::string_view from) {
    const size_t label = from.find(PROFILE_LABEL);
    if (label == std::string_view::npos)
        fail_at(from);
    return from.substr(label + PROFILE_LABEL.size());
}

constexpr cell WIFICALLING_CELLS[] = {
    {"Interface Name: ", "", "/+/ifname", text},
    {"(", "", "/./carriers/+/pname", profile},
    {"Priority: ", "", "/./carriers/./priority", number<10>},
    {"FQDN: ", "", "/./carriers/./fqdn", text},
    {"IPaddr:", "", "/./carriers/./ipaddr", addresses},
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
    reader(ordered_json &to, std::span<const cells> known) : to_(to), known_(known) {}

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
        const cell &found = find(part);
        std::string_view value = part.substr(std::string_view(found.label).size());
        if (*found.behind != '\0' && value.ends_with(found.behind))
            value.remove_suffix(std::string_view(found.behind).size());
        if (found.path != nullptr)
            place_at(to_, found.path) = found.value(value);
        items_ = found.items;
    }

    const cell &find(std::string_view part) const {
        for (const cells table : known_) {
            for (const cell &each : table) {
                if (part.starts_with(each.label))
                    return each;
            }
        }
        fail_at(part);
    }

    ordered_json &to_;
    std::span<const cells> known_;
    const char *items_ = nullptr;
};

template <const auto &...Cells>
ordered_json read_into(ordered_json to, std::string_view from) {
    static constexpr cells KNOWN[] = {Cells...};
    reader(to, KNOWN).read(from);
    return to;
}

template <const auto &Cells>
ordered_json records(std::string_view from) {
    return read_into<Cells>(ordered_json::array(), from);
}

template <const auto &...Cells>
ordered_json object(std::string_view from) {
    return read_into<Cells...>(ordered_json::object(), from);
}

// The names of ePDGs with their addresses; a name with a comma in it leaves nothing to tell which
// is whose, and then the names stay one text.
void join_epdgs(ordered_json &carrier) {
    if (!carrier.contains("fqdn") || !carrier.contains("ipaddr"))
        return;
    const std::string names = carrier["fqdn"].get<std::string>();
    const std::vector<std::string_view> fqdns = split(names, ',');
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
    ordered_json read = records<WIFICALLING_CELLS>(from);
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
    constexpr std::string_view TOTAL = "TOTAL:";
    int64_t total = 0;
    int64_t shown = 0;
    for (const std::string_view line : split(listing_text, '\n')) {
        if (line.starts_with(TOTAL))
            total = number<10>(line.substr(TOTAL.size())).get<int64_t>();
        shown += line.starts_with("NO:");
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
        has_policy = has_policy || line.find("No of Blocked categories:") != line.npos;
        is_whole = is_whole || line.starts_with("Bing");
    }
    return !has_policy || is_whole ? std::string() : "the policy is cut, for want of room";
}

using enum listing_argument;

constexpr size_t RULES_ROOM = 20'480;
constexpr size_t RULE_PIECE = 100;
constexpr size_t BINDINGS_ROOM = 122'879;
constexpr size_t BINDING_PIECE = 8'000;

constexpr listing LISTINGS[] = {
    {"priority", CMD_CHECK_PRIORITY_REQ, ID,
     "Rules, QoS and rate limits of the ARC policy of UTP ID", object<PRIORITY_CELLS>,
     cut_by_size<RULES_ROOM, RULE_PIECE>},
    {"applications", CMD_USERDEF_SHOW_REQ, NONE, "The user-defined applications",
     records<APPLICATION_CELLS>, never_cut},
    {"dns", CMD_DNS_CACHE_SHOW_REQ, NONE, "The DNS cache", object<DNS_CELLS>, cut_by_total},
    {"port-services", CMD_PORT_APP_SHOW_REQ, NONE, "The applications of the port-service file",
     object<PORT_CELLS>, cut_by_total},
    {"utps", CMD_UTP_SHOW_REQ, NONE, "The ARC UTP table with the ARC and web policies",
     records<UTP_CELLS>, never_cut},
    {"url", CMD_INTF_URL_POLICY_SHOW_REQ, INTERFACE, "URL filtering and web policy of INTERFACE",
     object<INTERFACE_CELLS, WEB_POLICY_CELLS>, cut_in_policy},
    {"utp-web", CMD_UTP_WEB_POLICY_SHOW_REQ, ID, "The web UTP ID with its web policy",
     object<WEB_UTP_CELLS, WEB_POLICY_CELLS>, cut_in_policy},
    {"wifi-calling", CMD_WIFICALLING_INTF_SHOW_REQ, NONE,
     "The interfaces with Wi-Fi calling and their carriers", wificalling,
     cut_by_size<BINDINGS_ROOM, BINDING_PIECE>},
};

// How answers refuse.
constexpr struct {
    command_number command;
    const char *begins;
    const char *ends;
} REFUSALS[] = {
    {CMD_CHECK_PRIORITY_REQ, "Invalid ", ""},
    {CMD_INTF_URL_POLICY_SHOW_REQ, "Interface ", " not present"},
    {CMD_UTP_WEB_POLICY_SHOW_REQ, "Invalid ", ""},
    {CMD_UTP_WEB_POLICY_SHOW_REQ, "UTP ID ", " not preset"},
};

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
    constexpr std::string_view BLANKS = " \n\t";
    const size_t begin = std::min(reply.find_first_not_of(BLANKS), reply.size());
    const std::string_view said = reply.substr(begin, reply.find_last_not_of(BLANKS) + 1 - begin);
    for (const auto &each : REFUSALS) {
        if (each.command == command && said.starts_with(each.begins) && said.ends_with(each.ends))
            return std::string(said);
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

} // namespace jornctl
