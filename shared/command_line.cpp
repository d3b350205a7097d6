#include "shared/command_line.h"

#include "shared/failure.h"
#include "shared/out_of_memory.h"
#include "shared/suggestion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <new>
#include <utility>

namespace {

// The words that may stand where the command line wasn't understood any more.
std::vector<std::string> words_known_there(const CLI::App &app) {
    std::vector<std::string> known;
    const CLI::App *level = &app;
    while (true) {
        for (const CLI::Option *option : level->get_options())
            known.push_back(option->get_name());
        if (level->get_subcommands().empty())
            break;
        level = level->get_subcommands().front();
    }
    for (const CLI::App *subcommand : level->get_subcommands({}))
        known.push_back(subcommand->get_name());
    return known;
}

// On one line and with what may have been meant. It quotes the command line as it is, control
// characters and all.
std::string what_is_wrong(const CLI::App &app, const CLI::ParseError &error) {
    const std::vector<std::string> unknown = app.remaining(true);
    std::string line = error.what();
    std::replace(line.begin(), line.end(), '\n', ' ');
    if (!unknown.empty())
        line = '"' + unknown.front() + "\" isn't expected here" +
               did_you_mean(unknown.front(), words_known_there(app));
    return line + "; --help says more";
}

int do_chosen(CLI::App &app, int argc, char **argv, const std::function<int()> &action) {
    app.parse(argc, argv);
    if (!action)
        throw CLI::RequiredError("What to do");
    const int status = action();
    if (!std::cout.flush())
        throw refused(std::string("standard output: ") + strerror(errno));
    return status;
}

} // namespace

int run_chosen(CLI::App &app, int argc, char **argv, const std::function<int()> &action,
               const int &status_refused, void (*complain)(std::string line)) {
    try {
        return do_chosen(app, argc, argv, action);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error);
        complain(what_is_wrong(app, error));
        return STATUS_USAGE;
    } catch (const nobody_there &error) {
        complain(error.what());
        return STATUS_NOBODY;
    } catch (const std::bad_alloc &) {
        complain(NO_MEMORY);
        return status_refused;
    } catch (const std::exception &error) {
        complain(error.what());
        return status_refused;
    }
}

subcommand::subcommand(CLI::App &app, const char *name, const char *what, const char *footer)
    : app_(*app.add_subcommand(name, what)) {
    app_.footer(footer);
}

CLI::Option *subcommand::add_option(const char *name, std::string &value, const char *what,
                                    const option_rules &rules) {
    CLI::Option *option = app_.add_option(name, value, what)->required(rules.is_required);
    if (rules.type_name != nullptr)
        option->type_name(rules.type_name);
    if (!rules.one_of.empty())
        option->check(CLI::IsMember(rules.one_of));
    if (rules.what_is_wrong_with != nullptr)
        option->check(rules.what_is_wrong_with);
    if (rules.shows_default)
        option->capture_default_str();
    if (rules.needs != nullptr)
        option->needs(rules.needs);
    return option;
}

void subcommand::add_option(const char *name, std::vector<std::string> &values, const char *what,
                            const char *type_name) {
    app_.add_option(name, values, what)->type_name(type_name)->allow_extra_args(false);
}

CLI::Option *subcommand::add_flag(const char *name, bool &is_given, const char *what,
                                  CLI::Option *excluded) {
    CLI::Option *flag = app_.add_flag(name, is_given, what);
    if (excluded != nullptr)
        flag->excludes(excluded);
    return flag;
}

void subcommand::callback(std::function<void()> chosen) {
    app_.callback(std::move(chosen));
}
