// A listening UNIX socket, whose name goes with it.
#pragma once

#include "shared/unique_fd.h"

#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <utility>

namespace avcore {

class local_listener {
public:
    struct kind {
        int type = SOCK_SEQPACKET;
        mode_t mode = 0; // 0: as the umask has it
    };

    // Listens at `path`, in the place of a dead predecessor's socket. Throws std::runtime_error,
    // also when somebody alive listens there; `what` stands for the socket in its message.
    local_listener(const std::string &what, std::string path)
        : local_listener(what, std::move(path), kind()) {}
    local_listener(const std::string &what, std::string path, const kind &wanted);
    ~local_listener();
    local_listener(const local_listener &) = delete;
    local_listener &operator=(const local_listener &) = delete;

    int fd() const { return fd_.get(); }
    // Invalid when nobody waits, or, with errno, when there is no descriptor left.
    unique_fd accept() const;

private:
    std::string path_;
    unique_fd fd_;
};

} // namespace avcore
