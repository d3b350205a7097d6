// The command table: which handler a command number has, and which file is rewritten after it.
//
// A message is a 20-byte header and a payload, in host byte order. Handlers read their record from
// the payload's start; a payload that is shorter than the record is completed with zeros. Handlers
// report their own errors in the log; nothing is told to the controller.
//
// A new command is a row in commands.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t COMMAND_MESSAGE_SIZE = 122'880; // header included

// cmd_msg_hdr, 20 bytes:   4 cmd   16 len
struct cmd_msg_hdr {
    uint8_t reserved1[4];
    uint32_t cmd;
    uint8_t reserved2[8];
    uint32_t len; // of the payload, in bytes; read by command 32 only
};
static_assert(sizeof(cmd_msg_hdr) == 20);
static_assert(offsetof(cmd_msg_hdr, cmd) == 4);
static_assert(offsetof(cmd_msg_hdr, len) == 16);

inline constexpr size_t COMMAND_PAYLOAD_SIZE = COMMAND_MESSAGE_SIZE - sizeof(cmd_msg_hdr);
inline constexpr size_t COMMAND_NUMBER_END = offsetof(cmd_msg_hdr, cmd) + sizeof(uint32_t);

// Runs the command of one message: its handler, then the follow-up of its row. `message` holds
// COMMAND_MESSAGE_SIZE bytes, zeros behind the `received` ones; replies go to `fd`. A message that
// is too short to hold a command number, and a number without handler, do nothing.
void run_command(int fd, const uint8_t *message, size_t received);

// Command 17: writes the configuration files now and answers that it did. Returns 0.
int jorn_process_cmd_write_cfg(int fd);
