// The daemon's command socket, seen from the client: one connection, one message, one answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace jornctl {

inline constexpr char DEFAULT_SOCKET[] = "/var/run/jorn.sock";

// The daemon sets eight connections aside; beside these there are one before them and one behind.
inline constexpr size_t COMMANDS_TOGETHER = 6;

struct command {
    uint32_t number;
    std::string payload;
};

// The bytes of a record, as the daemon copies them in.
template <typename Record>
std::string record_bytes(const Record &record) {
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

// The message that carries `sent`: header and payload. Throws refused when the daemon can't take
// that much.
std::string make_message(const command &sent);

class client {
public:
    client(std::string socket_path, std::chrono::milliseconds patience)
        : socket_path_(std::move(socket_path)), patience_(patience) {}

    // Sends a command and returns the whole answer; configuration commands have an empty one.
    // Throws no_daemon, at the latest when the patience for the whole exchange is used up.
    std::string send(const command &sent) const;

    // Sends a few commands without answers so that the daemon takes them between two packets: it
    // sets connections aside that say nothing yet, and serves all of them in one pass. Returns
    // whether it did. Otherwise some may have been taken, in whatever order, and all have to be
    // sent again; none of them is taken later. Throws refused where one is too long, and no_daemon.
    bool send_together(const std::vector<command> &few) const;

    // The process that listens there, or 0 where it can't be seen. Throws no_daemon.
    pid_t listener() const;

private:
    std::string socket_path_;
    std::chrono::milliseconds patience_;
};

} // namespace jornctl
