// How a run of avwatch ends: exit statuses, as jornctl's are, and the exceptions that lead to them.
// The text of an exception is the one line that the user reads behind "avwatch: ".
#pragma once

#include <stdexcept>

namespace avwatch {

inline constexpr int STATUS_DONE = 0;
inline constexpr int STATUS_REFUSED = 1;
inline constexpr int STATUS_USAGE = 2; // not understood, nothing tried
inline constexpr int STATUS_NO_WATCH = 2;

// Refused by avwatch itself or in an answer, or something on this machine failed.
struct refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Nobody at the watch socket, or somebody who speaks something else or doesn't finish an answer.
struct no_watch : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace avwatch
