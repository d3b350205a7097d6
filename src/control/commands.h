// The command table: which handler a command number has, and which file is rewritten after it.
//
// A message is a 20-byte header and a payload, in host byte order. The row says what the handler is
// given of it, and whether a payload that is shorter than its record is completed with zeros or
// refused; a handler never sees fewer bytes than its record has. What the bytes may hold is checked
// by the room whose tables they change. Handlers report their own errors in the log; nothing is
// told to the controller.
#pragma once

#include "control/records/message.h"

#include <cstddef>

// Runs the command of one message: its handler, then the follow-up of its row. `message` holds
// COMMAND_MESSAGE_SIZE bytes, zeros behind the `received` ones; replies go to `fd`. A message that
// is too short to hold a command number, and a number without handler, do nothing.
void run_command(int fd, const void *message, size_t received);

// The same without the follow-up, for programs that ask what a command would leave: no file is
// rewritten but by CMD_WRITE_CFG_REQ, whose handler does nothing else.
void run_handler(int fd, const void *message, size_t received);

// Command 17: writes the configuration files now and answers that it did. Returns 0.
int jorn_process_cmd_write_cfg(int fd);
