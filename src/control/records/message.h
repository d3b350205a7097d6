// The frame of a message on the command socket, one message a connection: this header and a
// payload, in host byte order. The daemon reads it and answers with text; jornctl writes it.
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
