// Which flows a subcommand is about, and the conversation in which it asks for them.
#pragma once

#include "avwatch/client/answers.h"
#include "avwatch/client/known_clients.h"
#include "avwatch/history/application_names.h"
#include "avwatch/settings/settings.h"
#include "shared/command_line.h"

#include <functional>
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

void add_json(subcommand &command, bool &as_json);
void add_selection(subcommand &command, selection &selected);
void add_verdict(subcommand &command, selection &selected);

// avcore, greeted and asked for its clients, and what is to be asked of it for a selection.
//
// Flows are shown with as much of names as the history keeps. Where that isn't all, avcore can't
// look for what is shown: then it tells flows of any name, and those that are wanted are chosen
// here.
struct conversation {
    // Throws no_watch and refused.
    conversation(const invocation &asked, const selection &wanted)
        : conversation(asked, wanted, read_settings(asked.settings_file)) {}

    flow_record shown(flow_record flow) const;
    bool is_wanted(const flow_record &flow) const; // as it is shown
    // Those that are wanted, as they are shown.
    void ask_flows(const std::function<void(const flow_record &flow)> &take);

    const selection selected;
    const names_kept names;
    watch_client avcore;
    const known_clients clients;
    const std::string client_key; // of the client selected, or empty
    const watch_filter filter;

private:
    conversation(const invocation &asked, const selection &wanted, const settings &read);
};

// That there was something in answers that nobody understood, on standard error.
void say_what_was_passed_over(const watch_client &avcore);

} // namespace avwatch
