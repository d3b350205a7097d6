// The daemon's listings: how each is asked for, refused and cut, and what its text says as JSON.
#pragma once

#include "control/records/commands.h"
#include "jornctl/base/json.h"
#include "jornctl/client/client.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace jornctl {

enum class listing_argument : uint8_t { NONE, ID, INTERFACE };

struct listing {
    const char *word; // of "jornctl show"
    command_number command;
    listing_argument argument;
    const char *help;
    // Throws refused for a text that no daemon writes.
    ordered_json (*parse)(std::string_view text);
    // What the daemon left out, or may have left out, for want of room; else empty.
    std::string (*cut)(std::string_view text);
};

std::span<const listing> listings();
const listing &listing_of(command_number command);

// The text of an answer to the command that refuses what was asked for ("Invalid ARC PCY ID"), else
// empty. A configuration command that the daemon refuses gets no answer.
std::string refusal_in(uint32_t command, std::string_view reply);

// Throws refused for an answer that refuses, and for none where one has to come.
void check_answer(const std::string &reply, uint32_t command);

// The daemon's text, with a warning on standard error where it was cut. Throws refused and
// no_daemon.
std::string ask(const client &daemon, const listing &wanted, const std::string &payload);

// The same as JSON: of a listing without an argument, and of one that may be refused, which is
// nothing. Throws refused, too, for an answer that broke off before what every record has.
ordered_json listed(const client &daemon, command_number command);
std::optional<ordered_json> listed(const client &daemon, command_number command,
                                   const std::string &payload);

} // namespace jornctl
