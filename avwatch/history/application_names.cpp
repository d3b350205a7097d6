#include "avwatch/history/application_names.h"

#include <algorithm>
#include <arpa/inet.h>
#include <libpsl.h>

namespace avwatch {
namespace {

constexpr std::string_view BY_NAME[] = {"dns", "handshake", "earlier handshake",
                                        "address asked for"};
constexpr std::string_view BY_OTHERS[] = {"dpi", "administrator", "carrier", "port"};
constexpr char ANY_NAME[] = "by name";
constexpr char ANY_ADDRESS[] = "by address";

template <size_t N>
bool is_one_of(const std::string_view (&words)[N], std::string_view word) {
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

bool is_address(const std::string &text) {
    in6_addr address = {};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

// The system's list where there is one, else the library's own; as old as the process at most.
const psl_ctx_t *public_suffixes() {
    static const psl_ctx_t *const list = psl_latest(nullptr);
    return list;
}

std::string registrable_part(const std::string &name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    const char *part = psl_registrable_domain(public_suffixes(), lower.c_str());
    return part != nullptr ? part : lower;
}

bool continues_character(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

} // namespace

application_name classify(std::string_view application, std::string_view named_by) {
    if (application.size() > NAME_MAX_BYTES)
        application.remove_prefix(application.size() - NAME_MAX_BYTES);
    while (!application.empty() && continues_character(application.front()))
        application.remove_prefix(1);
    const bool looks_like_one = application.find_first_of(".:") != std::string_view::npos;
    return {std::string(application),
            is_one_of(BY_NAME, named_by) || (looks_like_one && !is_one_of(BY_OTHERS, named_by))};
}

application_name reduced(application_name name, names_kept kept) {
    const bool is_reduced = name.text == ANY_NAME || name.text == ANY_ADDRESS;
    if (!name.is_name || name.text.empty() || is_reduced || kept == names_kept::full)
        return name;
    if (kept == names_kept::none)
        return {ANY_NAME, true};
    return {is_address(name.text) ? ANY_ADDRESS : registrable_part(name.text), true};
}

} // namespace avwatch
