#include "jornctl/documents.h"

#include "jornctl/addresses.h"
#include "jornctl/cross_checks.h"
#include "jornctl/fields.h"
#include "jornctl/json.h"

#include <algorithm>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace jornctl {
namespace {

constexpr uint32_t PORT_MAX = 65'535;
// The daemon's file keeps, and a rule can name, 63 characters; the record would hold two more.
constexpr uint32_t APP_NAME_MAX = 63;

// The order is the number.
constexpr const char *MARK_KINDS[] = {"dot1p", "dscp", "both"};
constexpr const char *TRAFFIC_TYPES[] = {"Background", "BestEffort", "Video", "Voice"};

struct mark {
    uint8_t kind;
    uint8_t type;
};

constexpr field<mark> MARK_FIELDS[] = {
    {"kind", read_word<&mark::kind, MARK_KINDS>, REQUIRED},
    {"type", read_word<&mark::type, TRAFFIC_TYPES>, REQUIRED},
};

// arc_rule::qos before its bits are put together.
struct qos {
    bool marking;
    mark marked;
    bool classification;
    uint8_t classify;
};

void read_mark(const node &from, const field<qos> &, qos &to) {
    to.marking = true;
    to.marked = read_record<mark>(from, MARK_FIELDS);
}

void read_classify(const node &from, const field<qos> &, qos &to) {
    to.classification = true;
    to.classify = word_number(from, TRAFFIC_TYPES);
}

constexpr field<qos> QOS_FIELDS[] = {
    {"mark", read_mark, OPTIONAL},
    {"classify", read_classify, OPTIONAL},
};

void read_qos(const node &from, const field<arc_rule> &, arc_rule &to) {
    const qos read = read_record<qos>(from, QOS_FIELDS);
    to.qos =
        static_cast<uint8_t>((read.marking ? 0x01 : 0) | (read.classification ? 0x02 : 0) |
                             read.marked.kind << 2 | read.marked.type << 4 | read.classify << 6);
}

// A number, or the words that stand for the category of the administrator's own applications.
template <auto Member>
void read_category(const node &from, const field<record_of<Member>> &row, record_of<Member> &to) {
    if (from.value == CATEGORY_NAME_USER_DEFINED)
        to.*Member = CATEGORY_USER_DEFINED;
    else
        read_number<Member>(from, row, to);
}

constexpr field<arc_rule> RULE_FIELDS[] = {
    {"app_id", read_number<&arc_rule::app_id>, OPTIONAL},
    {"cat_id", read_category<&arc_rule::cat_id>, OPTIONAL},
    {"app_name", read_file_text<&arc_rule::app_name>, REQUIRED, 1},
    {"cat_name", read_file_text<&arc_rule::cat_name>, OPTIONAL},
    {"deny", read_flag<&arc_rule::deny>, OPTIONAL},
    {"qos", read_qos, OPTIONAL},
    {"rate_up", read_number<&arc_rule::rate_up>, OPTIONAL},
    {"rate_down", read_number<&arc_rule::rate_down>, OPTIONAL},
};

void read_rules(const node &from, const field<arc_policy_wire> &, arc_policy_wire &to) {
    const auto rules = read_records<arc_rule>(from, RULE_FIELDS, ARC_RULES_PER_POLICY);
    std::copy(rules.begin(), rules.end(), to.rules);
    for (arc_rule &rule : to.rules) {
        // Attachment looks at the name, so the id alone would attach nothing.
        if (rule.cat_id == CATEGORY_USER_DEFINED && rule.cat_name[0] == '\0')
            memcpy(rule.cat_name, CATEGORY_NAME_USER_DEFINED, sizeof CATEGORY_NAME_USER_DEFINED);
    }
}

constexpr field<arc_policy_wire> POLICY_FIELDS[] = {
    {"attr1", read_number<&arc_policy_wire::attr1>, OPTIONAL},
    {"attr3", read_number<&arc_policy_wire::attr3>, OPTIONAL},
    {"attr4", read_number<&arc_policy_wire::attr4>, OPTIONAL},
    {"log_enable", read_flag<&arc_policy_wire::log_enable>, OPTIONAL},
    {"utp_id", read_number<&arc_policy_wire::utp_id>, REQUIRED, UTP_ID_MIN, UTP_ID_MAX},
    {"rules", read_rules, OPTIONAL},
    {"name", read_text<&arc_policy_wire::name>, OPTIONAL},
    {"uuid", read_text<&arc_policy_wire::uuid>, OPTIONAL},
};

constexpr field<utp_entry_wire> UTP_FIELDS[] = {
    {"id", read_number<&utp_entry_wire::id>, REQUIRED, UTP_ID_MIN, UTP_ID_MAX},
    {"name", read_text<&utp_entry_wire::name>, OPTIONAL},
    {"uuid", read_text<&utp_entry_wire::uuid>, OPTIONAL},
};

network network_in(const node &from) {
    const std::string text = string_in(from);
    const std::optional<network> parsed = parse_network(text);
    if (!parsed)
        from.refuse("is " + from.described() +
                    "; it must be an IPv4 address (the daemon compares no others), "
                    "with a prefix length where it is a network");
    return *parsed;
}

void read_src_ip(const node &from, const field<userdef_app> &, userdef_app &to) {
    const network source = network_in(from);
    if (source.has_prefix)
        from.refuse("can't have a prefix length: the record keeps a mask for dst_ip only");
    to.src_family = AF_INET;
    memcpy(to.src_ip, &source.address_be, sizeof source.address_be);
}

void read_dst_ip(const node &from, const field<userdef_app> &, userdef_app &to) {
    const network destination = network_in(from);
    to.dst_family = AF_INET;
    memcpy(to.dst_ip, &destination.address_be, sizeof destination.address_be);
    to.netmask = destination.mask_be;
}

// Behind dst_ip in the table, for it needs and replaces what that left.
void read_netmask(const node &from, const field<userdef_app> &, userdef_app &to) {
    const std::optional<uint32_t> mask = parse_netmask(string_in(from));
    if (!mask)
        from.refuse("is " + from.described() + "; it must be a mask like \"255.255.0.0\"");
    if (to.dst_family != AF_INET)
        from.refuse("needs a dst_ip");
    if (to.netmask != INADDR_NONE)
        from.refuse("can't stand beside the prefix length of dst_ip");
    to.netmask = *mask;
}

void read_protocol(const node &from, const field<userdef_app> &, userdef_app &to) {
    static constexpr const char *PROTOCOLS[] = {"tcp", "udp"};
    to.protocol = word_number(from, PROTOCOLS) == 0 ? IPPROTO_TCP : IPPROTO_UDP;
}

constexpr field<userdef_app> APPLICATION_FIELDS[] = {
    {"src_ip", read_src_ip, OPTIONAL},
    {"dst_ip", read_dst_ip, OPTIONAL},
    {"netmask", read_netmask, OPTIONAL},
    {"src_port", read_number<&userdef_app::src_port>, OPTIONAL, 0, PORT_MAX},
    {"dst_port", read_number<&userdef_app::dst_port>, OPTIONAL, 0, PORT_MAX},
    {"protocol", read_protocol, OPTIONAL},
    {"app_name", read_file_text<&userdef_app::app_name>, REQUIRED, 1, APP_NAME_MAX},
    {"app_id", read_number<&userdef_app::app_id>, OPTIONAL},
    {"cat_id", read_category<&userdef_app::cat_id>, OPTIONAL},
};

void read_policies(const node &from, const field<document> &, document &to) {
    to.policies = read_records<arc_policy_wire>(from, POLICY_FIELDS, UTP_ID_MAX);
}

void read_utps(const node &from, const field<document> &, document &to) {
    to.utps = read_records<utp_entry_wire>(from, UTP_FIELDS, UTP_ID_MAX);
}

void read_applications(const node &from, const field<document> &, document &to) {
    to.applications = read_records<userdef_app>(from, APPLICATION_FIELDS, USERDEF_APPS_MAX);
}

constexpr field<document> DOCUMENT_FIELDS[] = {
    {"policies", read_policies, OPTIONAL},
    {"utps", read_utps, OPTIONAL},
    {"applications", read_applications, OPTIONAL},
};

} // namespace

document read_document(std::string_view text) {
    const nlohmann::json parsed = parse_json(text);
    const node root{parsed, nlohmann::json::json_pointer()};
    document read = read_record<document>(root, DOCUMENT_FIELDS);
    if (parsed.empty())
        root.refuse("has no table: policies, utps or applications");
    check_across(read, root);
    return read;
}

} // namespace jornctl
