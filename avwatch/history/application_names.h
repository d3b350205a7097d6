// How much of a name is kept. An application that DPI, the administrator or a carrier named is kept
// as it is. One that a name gave (the server's in DNS, or the one that the client asked for) says
// which sites somebody visits, and is cut down to what the administrator wants to know.
#pragma once

#include <compare>
#include <string>
#include <string_view>

namespace avwatch {

enum class names_kept {
    full,
    domain, // the registrable part, "example.co.uk" of "www.example.co.uk"
    none
};

struct application_name {
    std::string text;
    bool is_name = false; // a name gave it
    auto operator<=>(const application_name &) const = default;
};

// The sum of those that are too many; also a client's place.
inline constexpr char OTHER[] = "other";

// What an application without a name is shown as.
inline constexpr char UNNAMED[] = "unnamed";

// `named_by` is the watch socket's word, empty where it isn't known: then what looks like a name or
// an address is one. What is longer than NAME_MAX bytes loses its beginning.
inline constexpr size_t NAME_MAX_BYTES = 128;
application_name classify(std::string_view application, std::string_view named_by);

// Idempotent: what is stored is shown by the same rule, so a stricter setting hides what an earlier
// one kept.
application_name reduced(application_name name, names_kept kept);

} // namespace avwatch
