// Which flows a subcommand is about, and the conversation in which it asks for them.
#pragma once

#include "avwatch/client/answers.h"
#include "avwatch/client/known_clients.h"
#include "avwatch/settings/settings.h"

#include <CLI/CLI.hpp>
#include <string>

namespace avwatch {

struct selection {
    std::string client; // as known_clients::find takes it
    std::string application;
    std::string name;
    std::string verdict; // a blank of it is a dash here
    bool as_json = false;

    bool names_flows() const { return !application.empty() || !name.empty() || !verdict.empty(); }
};

void add_json(CLI::App &subcommand, bool &as_json);
void add_selection(CLI::App &subcommand, selection &selected);
void add_verdict(CLI::App &subcommand, selection &selected);

// avcore, greeted and asked for its clients, and what is to be asked of it for a selection.
struct conversation {
    // Throws no_watch and refused.
    conversation(const invocation &asked, const selection &selected);

    watch_client avcore;
    known_clients clients;
    std::string client_key; // of the client selected, or empty
    watch_filter filter;
};

// That there was something in answers that nobody understood, on standard error.
void say_what_was_passed_over(const watch_client &avcore);

} // namespace avwatch
