#include "jornctl/documents/name_checks.h"

#include "core/text/text.h"
#include "userapps/builtin_ports.h"

namespace jornctl {
namespace {

// Fewer letters stand in many names.
constexpr size_t TELLING_LETTERS = 4;
// Behind the name of a flow, unless that is long already.
constexpr std::string_view COMPLETION = ".com";
constexpr char CATCH_ALL[] = ".";
// What decoders call their packets.
constexpr const char *PROTOCOL_NAMES[] = {"ICMP", "ARP"};

bool is_lower(char c) {
    return c >= 'a' && c <= 'z';
}
bool is_upper(char c) {
    return c >= 'A' && c <= 'Z';
}
bool is_alphanumeric(char c) {
    return is_lower(ascii_lower(c)) || (c >= '0' && c <= '9');
}
bool has_letter(std::string_view text) {
    return std::ranges::any_of(text, [](char c) { return is_lower(ascii_lower(c)); });
}

// Between two words of an application's name, as in "Xbox-Live" and "AmazonAWS".
bool is_boundary(std::string_view name, size_t at) {
    if (at == 0 || at == name.size())
        return true;
    const char before = name[at - 1];
    const char behind = name[at];
    return !is_alphanumeric(before) || !is_alphanumeric(behind) ||
           (is_lower(before) && is_upper(behind));
}

bool is_part_of(std::string_view name, std::string_view application) {
    for (size_t at = 0; at + name.size() <= application.size(); ++at) {
        const size_t end = at + name.size();
        if (equals_ignoring_case(application.substr(at, name.size()), name) &&
            is_boundary(application, at) &&
            (name.size() >= TELLING_LETTERS || is_boundary(application, end)))
            return true;
    }
    return false;
}

std::vector<std::string_view> labels_of(std::string_view name) {
    std::vector<std::string_view> labels;
    while (true) {
        const size_t end = name.find('.');
        labels.push_back(name.substr(0, end));
        if (end == std::string_view::npos)
            return labels;
        name.remove_prefix(end + 1);
    }
}

// A short label with nothing but its registry's behind it, as x.com and x.co.uk: any name may go on
// before it. Addresses have no letters.
bool stands_inside_others(std::string_view name) {
    const std::vector<std::string_view> labels = labels_of(name);
    const bool is_registered =
        labels.size() == 2 ||
        (labels.size() == 3 && labels[1].size() < TELLING_LETTERS && labels[2].size() == 2);
    return is_registered && has_letter(name) && !labels[0].empty() &&
           labels[0].size() < TELLING_LETTERS && !labels.back().empty();
}

// The name without what an address of the web has around it.
std::string_view bare_host(std::string_view name) {
    if (const size_t scheme = name.find("://"); scheme != std::string_view::npos)
        name.remove_prefix(scheme + 3);
    return name.substr(0, name.find_first_of("/:?#"));
}

bool is_web_address(std::string_view name) {
    if (name.find("://") != std::string_view::npos)
        return true;
    const std::string_view host = bare_host(name);
    // A flow that nothing names is called after addresses and a port: that has no letters.
    return host.size() < name.size() && host.find('.') != std::string_view::npos &&
           (has_letter(host) || name[host.size()] == '/');
}

std::string in_quotes(std::string_view text) {
    return '"' + std::string(text) + '"';
}

// What holds wherever names are looked for.
std::string doubt_about(std::string_view name) {
    if (name.find('*') != std::string_view::npos)
        return "never fits, for \"*\" stands for itself; the name without it fits wherever it "
               "stands in a flow's";
    if (is_web_address(name)) {
        const std::string_view host = bare_host(name);
        return "never fits, for a flow's name has no scheme, path or port" +
               (host.empty() ? std::string() : "; write " + in_quotes(host));
    }
    if (stands_inside_others(name))
        return "fits other names that hold it, too, as \"netflix.com\" holds \"x.com\"; " +
               in_quotes('.' + std::string(name)) + " fits what is below it alone";
    return {};
}

} // namespace

application_names::application_names(const document &read, const platform_facts &around)
    : has_engine_(around.applications.has_value()) {
    for (const char *name : PROTOCOL_NAMES)
        names_.emplace_back(name);
    for (const port_service &service : builtin_port_app_table)
        names_.emplace_back(field_text(service.app_name));
    if (read.applications) {
        for (const userdef_app &app : *read.applications)
            names_.emplace_back(app.app_name);
    }
    if (around.applications)
        names_.insert(names_.end(), around.applications->begin(), around.applications->end());
}

bool application_names::know(std::string_view name) const {
    return std::ranges::any_of(
        names_, [&](const std::string &application) { return is_part_of(name, application); });
}

bool fits_every_flow(std::string_view rule_name) {
    return !rule_name.empty() && contains_ignoring_case(COMPLETION, rule_name);
}

std::string doubt_about_rule(std::string_view name, const application_names &known) {
    if (name == "*")
        return "never fits, for \"*\" stands for itself; " + in_quotes(CATCH_ALL) +
               " fits every name";
    if (name != CATCH_ALL && fits_every_flow(name))
        return "fits every name, for \".com\" is put behind those that are compared";
    if (std::string doubt = doubt_about(name); !doubt.empty())
        return doubt;
    if (name.find('.') != std::string_view::npos || known.know(name))
        return {};
    if (name.size() < TELLING_LETTERS)
        return "fits wherever these letters stand in a name, which is so short that many hold it";
    return known.are_all() ? "fits hosts that have these letters in their names, and no "
                             "application: none is called so"
                           : "";
}

std::string doubt_about_domain(std::string_view name) {
    std::string doubt = doubt_about(name);
    if (doubt.empty() && name.size() < TELLING_LETTERS && name.find('.') == std::string_view::npos)
        return "fits wherever these letters stand in a domain, which is so short that many hold it";
    return doubt;
}

} // namespace jornctl
