// Command lines, as CLI11 reads them. Whoever describes a subcommand by what is here does without
// its headers: with them a source takes seconds to compile.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
class ParseError;
} // namespace CLI

// What is wrong, on one line and with what may have been meant. It quotes the command line as it
// is, control characters and all.
std::string what_is_wrong(const CLI::App &app, const CLI::ParseError &error);

struct option_rules {
    const char *type_name = nullptr; // of its value, in the help
    bool is_required = false;
    bool shows_default = false;
    std::vector<std::string> one_of = {}; // empty: any
    // An empty text says that nothing is.
    std::string (*what_is_wrong_with)(const std::string &value) = nullptr;
    CLI::Option *needs = nullptr;
};

// A subcommand of a program, which owns it.
class subcommand {
public:
    subcommand(CLI::App &app, const char *name, const char *what, const char *footer = "");

    CLI::Option *add_option(const char *name, std::string &value, const char *what,
                            const option_rules &rules = {});
    // One value each time that it is given.
    void add_option(const char *name, std::vector<std::string> &values, const char *what,
                    const char *type_name);
    CLI::Option *add_flag(const char *name, bool &is_given, const char *what,
                          CLI::Option *excluded = nullptr);
    // What is called when it was chosen and its options are read.
    void callback(std::function<void()> chosen);

private:
    CLI::App &app_;
};
