#include "avwatch/why/words.h"

#include "core/text/text.h"
#include "platform/psm.h"

#include <iterator>

namespace avwatch {
namespace {

using nlohmann::ordered_json;

constexpr int PASSES = 0;
constexpr int BLOCKED = 1;
constexpr int UNKNOWN = 2;

constexpr struct {
    uint32_t verdict;
    const char *word;
    const char *action;
} VERDICTS[] = {
    {AV_VERDICT_ALLOW, "allow", "passes"}, {AV_VERDICT_WHITE_LIST, "white list", "passes"},
    {AV_VERDICT_DENY, "deny", "blocked"},  {AV_VERDICT_RATE_LIMIT, "rate limit", "limited"},
    {AV_VERDICT_QOS, "qos", "marked"},
};

const char *verdict_word(const outcome &found) {
    for (const auto &each : VERDICTS) {
        if (each.verdict == found.verdict.verdict)
            return each.word;
    }
    return "none";
}

const char *action_word(const outcome &found) {
    for (const auto &each : VERDICTS) {
        if (each.verdict == found.verdict.verdict)
            return each.action;
    }
    return "passes";
}

std::string in_quotes(std::string_view text) {
    return '"' + std::string(text) + '"';
}

template <size_t N>
std::string in_quotes(const char (&field)[N]) {
    return in_quotes(field_text(field));
}

// The name of a record, or its place where it has none.
template <size_t N>
std::string called(const char *kind, const char (&name)[N], size_t place) {
    return std::string(kind) + ' ' +
           (name[0] != '\0' ? in_quotes(name) : std::to_string(place + 1) + " of the document");
}

std::string category_text(int32_t number) {
    const bool is_named = number >= 0 && static_cast<size_t>(number) < std::size(g_cat_map);
    return is_named ? std::string("category ") + (g_cat_map[number] + 1)
                    : "category " + std::to_string(number);
}

std::string flow_name(const answer &all, const outcome &found) {
    return all.facts.shown(field_text(found.verdict.app_name));
}

std::string rates_text(const arc_rule &rule) {
    const auto rate = [](uint16_t value) {
        return value != 0 ? std::to_string(value) : std::string("no limit");
    };
    return " (" + rate(rule.rate_up) + " up, " + rate(rule.rate_down) +
           " down, in the controller's unit)";
}

// Why the rule fits.
std::string rule_reason(const answer &all, const outcome &found, const arc_rule &rule) {
    if (rule.app_id != 0) {
        const std::string category =
            rule.cat_name[0] != '\0' ? ", category " + in_quotes(rule.cat_name) : "";
        return "application " + in_quotes(rule.app_name) + category + " by its numbers " +
               std::to_string(rule.app_id) + " and " + std::to_string(rule.cat_id);
    }
    const std::string_view name = field_text(found.verdict.app_name);
    const std::string_view domain = field_text(rule.app_name);
    return in_quotes(domain) + " is in the name " + in_quotes(flow_name(all, found)) +
           (contains_ignoring_case(name, domain) ? "" : " with \".com\" behind it");
}

// The part that decided: what it is called, and why it fits.
struct described_part {
    std::string called;
    std::string reason;
};

described_part describe_rule(const answer &all, const outcome &found, const part &by) {
    const arc_policy_wire &policy = all.documents.owner_of(by.kind).policies->at(by.record);
    const arc_rule &rule = policy.rules[by.item];
    std::string reason = rule_reason(all, found, rule);
    if (found.verdict.verdict == AV_VERDICT_RATE_LIMIT)
        reason += rates_text(rule);
    return {"rule " + std::to_string(by.item + 1) + " of " +
                called("policy", policy.name, by.record),
            reason};
}

described_part describe_web(const answer &all, const outcome &found, const part &by) {
    const web_policy_wire &policy = all.documents.owner_of(by.kind).web_policies->at(by.record);
    const std::string of = called("web policy", policy.name, by.record);
    const std::string domain = in_quotes(flow_name(all, found));
    if (by.kind == part_kind::CATEGORY)
        return {category_text(policy.categories[by.item]) + " of " + of, domain + " is in it"};
    const bool is_white = by.kind == part_kind::WHITE_PATTERN;
    const auto &list = is_white ? policy.whitelist : policy.blacklist;
    return {std::string(is_white ? "the white list of " : "the black list of ") + of,
            in_quotes(list[by.item]) + " fits " + domain};
}

described_part describe(const answer &all, const outcome &found, const part &by) {
    switch (by.kind) {
    case part_kind::RULE:
        return describe_rule(all, found, by);
    case part_kind::WHITE_PATTERN:
    case part_kind::BLACK_PATTERN:
    case part_kind::CATEGORY:
        return describe_web(all, found, by);
    case part_kind::CARRIER: {
        const auto &carrier = all.documents.owner_of(by.kind).carriers->at(by.record);
        return {called("carrier", carrier.pname, by.record),
                "Wi-Fi calling of priority " + std::to_string(carrier.priority) +
                    (found.carrier_host.empty() ? "" : ", by " + in_quotes(found.carrier_host))};
    }
    case part_kind::APPLICATION: {
        const auto &defined = all.documents.owner_of(by.kind).applications->at(by.record);
        return {called("application", defined.app_name, by.record),
                "the administrator's definition names the flow"};
    }
    case part_kind::PORT_LINE:
        return {"the port's name", "the port-service file names the flow"};
    }
    return {};
}

size_t line_of(const answer &all, const part &place) {
    if (place.kind == part_kind::PORT_LINE)
        return place.record + 1;
    const auto &lines = all.documents.text_of(place.kind).lines;
    const auto found = lines.find(path_of(place));
    return found != lines.end() ? found->second : 0;
}

// "(/policies/0/rules/3, line 41 of policy.json)".
std::string place_text(const answer &all, const part &place) {
    std::string text = path_of(place);
    if (const size_t line = line_of(all, place); line != 0)
        text += (text.empty() ? "line " : ", line ") + std::to_string(line) + " of " +
                all.documents.text_of(place.kind).name;
    return '(' + text + ')';
}

std::string without_policy(const asked_profile &profile) {
    if (profile.utp_id == 0)
        return "the client has no profile, for its UTP is 0";
    const std::string utp = "UTP " + std::to_string(profile.utp_id);
    return utp + (profile.has_entry ? " has no policy" : " isn't among the daemon's UTPs");
}

// Why nothing decided.
std::string nothing_fits(const answer &all, const outcome &found) {
    const std::string name = in_quotes(flow_name(all, found));
    if (found.is_webs) {
        if (!found.web_policy)
            return "the web filter owns the flow, and no web policy applies to interface " +
                   all.facts.interface;
        const auto &policy =
            all.documents.owner_of(part_kind::CATEGORY).web_policies->at(*found.web_policy);
        return "no list and no category of " +
               called("web policy", policy.name, *found.web_policy) + " fits " + name;
    }
    std::string reasons;
    for (const asked_profile &each : found.profiles) {
        const bool is_again =
            &each != found.profiles.data() && each.policy == found.profiles.front().policy;
        if (!each.policy || is_again)
            continue;
        const auto &policy = all.documents.owner_of(part_kind::RULE).policies->at(*each.policy);
        reasons += (reasons.empty() ? "no rule of " : ", nor of ") +
                   called("policy", policy.name, *each.policy);
    }
    return reasons.empty() ? without_policy(found.profiles.front()) : reasons + " fits " + name;
}

std::string decision_text(const answer &all, const outcome &found) {
    const std::string action = action_word(found);
    if (!found.by)
        return action + ": " + nothing_fits(all, found);
    const described_part by = describe(all, found, *found.by);
    return action + " by " + by.called + ' ' + place_text(all, *found.by) + ": " + by.reason;
}

std::string sentence_of(const answer &all, const outcome &found) {
    std::string decision = decision_text(all, found);
    if (found.unanswered.empty())
        return decision;
    return "can't say, for nobody tells the web categories of " +
           in_quotes(all.facts.shown(found.unanswered)) + "; without them: " + decision;
}

std::string definition_source(const answer &all, const outcome &found) {
    return "the administrator's definition" +
           (found.definition ? ' ' + place_text(all, *found.definition) : "");
}

std::string dns_source(const answer &all, const outcome &found) {
    const auto &sources = all.facts.dns_sources;
    const auto source = sources.find(std::string(field_text(found.verdict.app_name)));
    return source != sources.end() ? source->second : std::string();
}

// Of the domain that the web filter asked for.
std::string domain_source(const answer &all, const outcome &found) {
    if (all.facts.flow.trailer.kernel_domain[0] != '\0')
        return all.facts.host_source;
    if (found.named_by == APP_SOURCE_USERDEF)
        return definition_source(all, found);
    const std::string source = dns_source(all, found);
    return source.empty() ? "the address that is asked for" : source;
}

std::string name_source(const answer &all, const outcome &found) {
    if (found.is_webs)
        return domain_source(all, found);
    switch (found.named_by) {
    case APP_SOURCE_BUILTIN_PORT:
        return "the port, as one of those that the daemon knows";
    case APP_SOURCE_DNS:
        return dns_source(all, found);
    case APP_SOURCE_DPI:
        return all.facts.engine_source;
    case APP_SOURCE_USER_PORT:
        return "the port-service file" +
               (found.definition ? ' ' + place_text(all, *found.definition) : "");
    case APP_SOURCE_USERDEF:
        return definition_source(all, found);
    case APP_SOURCE_NONE:
        break;
    }
    return found.by && found.by->kind == part_kind::CARRIER ? "the carrier"
                                                            : "the addresses, for want of a name";
}

// Before what is left to decide: what went last.
std::string without_text(const answer &all, const outcome &before, const outcome &left) {
    if (before.by)
        return {};
    const described_part gone = describe(all, before, *before.definition);
    return "without " + gone.called + ' ' + place_text(all, *before.definition) + " its name is " +
           in_quotes(flow_name(all, left)) + ": ";
}

ordered_json place_json(const answer &all, const std::optional<part> &place) {
    if (!place)
        return nullptr;
    ordered_json said;
    if (const std::string path = path_of(*place); !path.empty())
        said["path"] = path;
    if (const size_t line = line_of(all, *place); line != 0)
        said["line"] = line;
    said["document"] = all.documents.text_of(place->kind).name;
    return said;
}

ordered_json outcome_json(const answer &all, const outcome &found) {
    constexpr const char *ANSWERS[] = {"passes", "blocked", "unknown"};
    return {{"answer", ANSWERS[status_of(found)]},
            {"sentence", sentence_of(all, found)},
            {"verdict", verdict_word(found)},
            {"application", flow_name(all, found)},
            {"named_by", name_source(all, found)},
            {"by", place_json(all, found.by)},
            {"definition", place_json(all, found.definition)}};
}

// What of the documents could have blocked the flow and isn't asked.
std::string not_asked(const answer &all, const outcome &found) {
    const uint32_t filter = all.facts.flow.trailer.filter_type;
    const auto &policies = all.documents.owner_of(part_kind::CATEGORY).web_policies;
    if (!policies || policies->empty() || found.is_webs || !found.passes())
        return {};
    if ((filter & AV_FILTER_URL) == 0)
        return "no web policy is asked, for filter_type of the client's profile has no \"url\"";
    return all.facts.dpi_engine ? ""
                                : "no web policy is asked, for the daemon isn't told of a DPI "
                                  "engine (tm_support of avcore's configuration)";
}

bool is_decided_otherwise(const answer &all) {
    const outcome &now = all.fitting.now;
    const std::string &standing = all.facts.standing_verdict;
    return !standing.empty() && standing != verdict_word(now) && all.documents.tried.name.empty() &&
           now.unanswered.empty();
}

// What is to be said beside the answer and the facts.
std::vector<std::string> doubts_of(const answer &all) {
    const outcome &now = all.fitting.now;
    const flow_facts &facts = all.facts;
    std::vector<std::string> notes;
    if (is_decided_otherwise(all))
        notes.emplace_back("the daemon decided otherwise: by something that isn't known here, or "
                           "by a packet of the other side's");
    if (const std::string missing = not_asked(all, now); !missing.empty())
        notes.push_back(missing);
    if (all.by_other_protocol)
        notes.push_back(std::string("no protocol is given: it is taken to be ") + facts.protocol +
                        "; with the other one: " + sentence_of(all, *all.by_other_protocol));
    notes.insert(notes.end(), all.documents.doubts.begin(), all.documents.doubts.end());
    return notes;
}

std::vector<std::string> notes_of(const answer &all) {
    std::vector<std::string> notes = all.facts.notes;
    for (std::string &each : doubts_of(all))
        notes.push_back(std::move(each));
    return notes;
}

std::vector<std::string> then_of(const answer &all) {
    std::vector<std::string> said;
    const outcome *before = &all.fitting.now;
    for (const outcome &each : all.fitting.then) {
        said.push_back(without_text(all, *before, each) + sentence_of(all, each));
        before = &each;
    }
    return said;
}

} // namespace

int status_of(const outcome &found) {
    if (!found.unanswered.empty())
        return UNKNOWN;
    return found.passes() ? PASSES : BLOCKED;
}

bool is_same_decision(const outcome &one, const outcome &other) {
    return one.verdict.verdict == other.verdict.verdict && one.by == other.by &&
           one.unanswered.empty() == other.unanswered.empty();
}

std::vector<std::string> lines_of(const answer &found) {
    const outcome &now = found.fitting.now;
    const flow_facts &facts = found.facts;
    std::vector<std::string> lines = {sentence_of(found, now)};
    const auto row = [&](const char *what, const std::string &said) {
        std::string line = std::string("  ").append(what);
        lines.push_back(line.append(12 - line.size(), ' ') + said);
    };
    row("client", facts.client_text + ", UTP " + std::to_string(facts.flow.trailer.src_utp_id) +
                      ", interface " + facts.interface + ", by " + facts.profile_source);
    row("server", facts.server_text + ", " + facts.protocol);
    const std::string name = flow_name(found, now);
    row("name", name.empty() ? "none" : in_quotes(name) + ", by " + name_source(found, now));
    for (const std::string &each : notes_of(found))
        row("note", each);
    const std::vector<std::string> then = then_of(found);
    if (!then.empty())
        lines.emplace_back("without it:");
    for (const std::string &each : then)
        lines.push_back((&each == &then.front() ? "  " : "  then ") + each);
    return lines;
}

std::vector<labelled_text> what_else_of(const answer &found) {
    std::vector<labelled_text> lines;
    for (std::string &each : then_of(found))
        lines.emplace_back(lines.empty() ? "without it" : "then", std::move(each));
    if (lines.empty() && !is_decided_otherwise(found))
        lines.emplace_back("without it", "nothing else would decide");
    for (std::string &each : doubts_of(found))
        lines.emplace_back("note", std::move(each));
    return lines;
}

ordered_json json_of(const answer &found) {
    const flow_facts &facts = found.facts;
    ordered_json said = outcome_json(found, found.fitting.now);
    said["client"] = facts.client_text;
    said["server"] = facts.server_text;
    said["protocol"] = facts.protocol;
    said["utp"] = facts.flow.trailer.src_utp_id;
    said["interface"] = facts.interface;
    said["profile_by"] = facts.profile_source;
    said["notes"] = notes_of(found);
    said["then"] = ordered_json::array();
    for (const outcome &each : found.fitting.then)
        said["then"].push_back(outcome_json(found, each));
    return said;
}

} // namespace avwatch
