// How a run of jornctl ends: exit statuses, and the exceptions that lead to them. The text of an
// exception is the one line that the user reads behind "jornctl: ".
#pragma once

#include <stdexcept>
#include <string>

namespace jornctl {

inline constexpr int STATUS_DONE = 0;
inline constexpr int STATUS_REFUSED = 1;
inline constexpr int STATUS_USAGE = 2; // not understood, nothing tried
inline constexpr int STATUS_NO_DAEMON = 2;
// Of a comparison, as other programs that compare have them.
inline constexpr int STATUS_DIFFERS = 1;
inline constexpr int STATUS_NOT_COMPARED = 2;

// Refused by jornctl itself or by the daemon's answer, or something on this machine failed.
struct refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Nobody at the socket, or somebody who doesn't take the message or doesn't finish the answer.
struct no_daemon : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace jornctl
