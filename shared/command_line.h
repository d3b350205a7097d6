// Command lines that CLI11 doesn't understand.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

// What is wrong, on one line and with what may have been meant. It quotes the command line as it
// is, control characters and all.
std::string what_is_wrong(const CLI::App &app, const CLI::ParseError &error);
