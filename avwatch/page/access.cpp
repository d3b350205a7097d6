#include "avwatch/page/access.h"

#include "avcore/base/host_text.h"
#include "avwatch/base/addresses.h"

#include <algorithm>
#include <string_view>

namespace avwatch {
namespace {

constexpr char COOKIE[] = "jorn_page";

bool is_address(const std::string &name) {
    const bool is_bracketed = name.size() > 2 && name.front() == '[' && name.back() == ']';
    return canonical_address(is_bracketed ? name.substr(1, name.size() - 2) : name).has_value();
}

// A cookie's value in the header's "a=1; b=2".
std::string_view cookie_in(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        const size_t end = std::min(header.find(';'), header.size());
        std::string_view each = header.substr(0, end);
        header.remove_prefix(std::min(end + 1, header.size()));
        each.remove_prefix(std::min(each.find_first_not_of(' '), each.size()));
        if (each.starts_with(name) && each.substr(name.size()).starts_with('='))
            return each.substr(name.size() + 1);
    }
    return {};
}

page_reply refuse(unsigned status, std::string text) {
    page_reply reply;
    reply.status = status;
    reply.body = std::move(text);
    return reply;
}

} // namespace

std::string host_name_of(const std::string &host) {
    const size_t bracket = host.rfind(']');
    const size_t colon = host.find(':', bracket == std::string::npos ? 0 : bracket);
    std::string name = avcore::lower_case(host.substr(0, colon));
    if (name.ends_with('.'))
        name.pop_back();
    return name;
}

std::optional<page_reply> page_access::stranger_refusal(const page_request &asked) const {
    const std::string name = host_name_of(asked.host);
    const bool is_ours = is_address(name) || name == "localhost" ||
                         std::ranges::find(settings_.hosts, name) != settings_.hosts.end();
    if (!is_ours)
        return refuse(421, "this machine isn't known by that name here: \"hosts\" in [http] of "
                           "avwatch's configuration has those that are\n");
    const std::string own = (settings_.is_encrypted ? "https://" : "http://") + asked.host;
    // A frame or a prefetch navigates as well; and what a click leads to isn't the table's answers,
    // which cost something.
    const bool is_click = asked.fetch_mode == "navigate" && asked.fetch_dest == "document" &&
                          (asked.path == "/" || asked.path == "/enter");
    const bool is_elsewhere = !asked.fetch_site.empty() && asked.fetch_site != "same-origin" &&
                              asked.fetch_site != "none";
    if ((!asked.origin.empty() && avcore::lower_case(asked.origin) != avcore::lower_case(own)) ||
        (is_elsewhere && !is_click))
        return refuse(403, "not for other sites' pages\n");
    return std::nullopt;
}

std::optional<page_reply> page_access::refusal(const page_request &asked, int64_t now_s) const {
    std::optional<page_reply> refused = stranger_refusal(asked);
    if (refused || is_known(asked, now_s))
        return refused;
    page_reply reply = refuse(
        401, "who isn't on this machine needs a token, or a link: \"avwatch link\" prints one\n");
    reply.headers.emplace_back("WWW-Authenticate", "Bearer");
    return reply;
}

bool page_access::is_known(const page_request &asked, int64_t now_s) const {
    if (asked.is_from_loopback)
        return true;
    if (settings_.token.empty())
        return false;
    constexpr std::string_view scheme = "bearer ";
    const std::string_view given = asked.authorization;
    if (avcore::lower_case(std::string(given.substr(0, scheme.size()))) == scheme)
        return is_same_secret(given.substr(scheme.size()), settings_.token);
    return is_pass(cookie_in(asked.cookie, COOKIE), settings_.token, now_s);
}

// A page that goes on by itself: behind a redirection, a browser that came by another site's link
// would keep the cookie back. What asks by HEAD only looks whether the link leads anywhere, and
// leaves it good.
page_reply page_access::enter(const page_request &asked, int64_t now_s) {
    if (asked.is_head) {
        page_reply reply = refuse(405, "");
        reply.headers.emplace_back("Allow", "GET");
        return reply;
    }
    if (settings_.token.empty() || !tickets_.take(asked.argument("ticket"), settings_.token, now_s))
        return refuse(403,
                      "this link was used or is too old: \"avwatch link\" prints another one\n");
    page_reply reply;
    reply.type = "text/html; charset=utf-8";
    reply.constant_body = "<!doctype html><meta charset=\"utf-8\">"
                          "<meta http-equiv=\"refresh\" content=\"0;url=/\">"
                          "<title>jorn</title><a href=\"/\">jorn</a>\n";
    std::string cookie = std::string(COOKIE) + '=' + make_pass(settings_.token, now_s) +
                         "; Path=/; Max-Age=" + std::to_string(PASS_S) +
                         "; HttpOnly; SameSite=Strict";
    if (settings_.is_encrypted)
        cookie += "; Secure";
    reply.headers.emplace_back("Set-Cookie", std::move(cookie));
    return reply;
}

} // namespace avwatch
