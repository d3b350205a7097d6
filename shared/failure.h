// How a run of a tool ends that asks another program: exit statuses, and the exceptions that lead
// to them. The text of an exception is the one line that the user reads behind the tool's name.
#pragma once

#include <stdexcept>

inline constexpr int STATUS_DONE = 0;
inline constexpr int STATUS_REFUSED = 1;
inline constexpr int STATUS_USAGE = 2; // not understood, nothing tried
inline constexpr int STATUS_NOBODY = 2;

// Refused by the tool itself or in an answer, or something on this machine failed.
struct refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Nobody at the socket, or somebody who doesn't take the message, speaks something else or doesn't
// finish the answer.
struct nobody_there : std::runtime_error {
    using std::runtime_error::runtime_error;
};
