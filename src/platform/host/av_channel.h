// The AV channel's client: one UNIX socket of type SOCK_SEQPACKET over which the platform
// operations reach whatever plays the platform.
//
// The channel connects at its first call and keeps the connection. A call without one tries to
// connect if the last try is a second old and otherwise fails at once, so an absent platform costs
// a packet next to nothing. Nothing here blocks but the wait for an answer, which is half a second
// at most. An answer that doesn't come in time costs its question and not the connection; those
// that packets wait for (roaming, names, categories) then fail at once for a second.
#pragma once

#include "platform/host/messages/av_messages.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

using av_clock = std::chrono::steady_clock;
inline constexpr av_clock::duration AV_ANSWER_TIME = std::chrono::milliseconds(500);

using av_bytes = std::span<const std::byte>;

// Sends one message whose body is the parts, one behind the other. Returns 0 when it was sent, -1
// when it could not be; the connection stays when the message just doesn't fit now.
int av_send(av_op op, std::span<const av_bytes> parts);

// Sends a question and waits for its answer. Returns true and the answer's return code when one
// came in time; `body` is filled only when the code is 0, and an answer that falls short of it
// counts as none.
bool av_ask(av_op op, std::span<const av_bytes> parts, int32_t &rc, std::span<std::byte> body,
            av_clock::duration wait = AV_ANSWER_TIME);

// The same for an answer whose body may be of any length up to that of `body`: `taken` says how
// much came.
bool av_ask_some(av_op op, std::span<const av_bytes> parts, int32_t &rc, std::span<std::byte> body,
                 size_t &taken, av_clock::duration wait = AV_ANSWER_TIME);

// Asks a question without a body for a descriptor (close-on-exec), which is then the caller's; -1
// when the answer is another, doesn't come in time or brings several. Returns whether the question
// went out. What comes with any other message is closed.
bool av_ask_descriptor(av_op op, int &descriptor);

// Whether questions of this op fail at once now.
bool av_pauses(av_op op);

// Whether the channel is connected, after a try to connect where one is due.
bool av_connected();

// Which connection there is, another number for each; 0 without one.
uint32_t av_connection();

template <typename T>
av_bytes av_part(const T &value) {
    return std::as_bytes(std::span<const T, 1>(&value, 1));
}
