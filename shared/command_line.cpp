#include "shared/command_line.h"

#include "shared/suggestion.h"

#include <algorithm>
#include <vector>

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

} // namespace

std::string what_is_wrong(const CLI::App &app, const CLI::ParseError &error) {
    const std::vector<std::string> unknown = app.remaining(true);
    std::string line = error.what();
    std::replace(line.begin(), line.end(), '\n', ' ');
    if (!unknown.empty())
        line = '"' + unknown.front() + "\" isn't expected here" +
               did_you_mean(unknown.front(), words_known_there(app));
    return line + "; --help says more";
}
