// Command lines, as CLI11 reads them. Whoever describes a subcommand by what is here does without
// its headers: with them a source takes seconds to compile.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

// Reads the command line and does what it chose: the callbacks fill `action`, which returns the
// exit status and may throw; `complain` then gets the line. `status_refused`: of what wasn't done
// though somebody was there.
int run_chosen(CLI::App &app, int argc, char **argv, const std::function<int()> &action,
               const int &status_refused, void (*complain)(std::string line));

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
