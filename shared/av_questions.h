// Questions on the AV channel that the daemon never asks: tools do, of avcore. Their numbers keep
// away from the platform's own, and who doesn't know them answers with -1 alone.
#pragma once

#include "platform/host/messages/av_messages.h"

// The names that the DPI engine can give a flow: each with a NUL behind it. -1 without an engine.
inline constexpr av_op AV_ASK_APPLICATIONS{64};

// What the configuration gives clients: a record, then the names of interfaces, each with a NUL
// behind it.
inline constexpr av_op AV_ASK_CLIENTS{65};
struct av_clients_answer {
    uint64_t utps;     // a bit for each id that a side of a flow may have
    uint64_t web_utps; // and of web UTPs, as far as there are bits
};
static_assert(sizeof(av_clients_answer) == 16);
static_assert(AV_UTP_ID_MAX < 64);

// Whoever asks nothing else isn't the daemon.
constexpr bool is_tool_question(av_op op) {
    return op == AV_ASK_APPLICATIONS || op == AV_ASK_CLIENTS;
}

// What an answer has at most behind its head.
inline constexpr size_t AV_TOOL_ANSWER_MAX = 65'536;
