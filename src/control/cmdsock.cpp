#include "control/cmdsock.h"

#include "control/commands.h"
#include "core/base/log.h"

#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int LISTEN_BACKLOG = 5;
constexpr timeval CLIENT_PATIENCE = {1, 0};

uint8_t message_buffer[COMMAND_MESSAGE_SIZE];

} // namespace

int jorn_cmdsock_init() {
    sockaddr_un address = {};
    static_assert(sizeof address == 110);
    static_assert(sizeof jorn_settings.sock_path <= sizeof address.sun_path);

    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        JORN_ERROR("could not allocate UNIX Socket!");
        return -1;
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, jorn_settings.sock_path, sizeof jorn_settings.sock_path);
    unlink(jorn_settings.sock_path);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        JORN_ERROR("could bind UNIX Socket!");
        close(fd);
        return -1;
    }
    if (listen(fd, LISTEN_BACKLOG) != 0) {
        JORN_ERROR("could listen to UNIX Socket!");
        close(fd);
        return -1;
    }
    return fd;
}

int cmdsock_accept(int listen_fd) {
    sockaddr_un peer = {};
    socklen_t peer_size = sizeof peer;
    const int fd =
        accept4(listen_fd, reinterpret_cast<sockaddr *>(&peer), &peer_size, SOCK_CLOEXEC);
    if (fd < 0) {
        perror("cmdsock_accept()/accept()");
        return -1;
    }
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &CLIENT_PATIENCE, sizeof CLIENT_PATIENCE);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &CLIENT_PATIENCE, sizeof CLIENT_PATIENCE);

    const ssize_t received = read(fd, message_buffer, sizeof message_buffer);
    if (received < 0) {
        perror("cmdsock_accept()/read()");
        close(fd);
        return -1;
    }
    // What an earlier message left behind completes nothing.
    const auto size = static_cast<size_t>(received);
    memset(message_buffer + size, 0, sizeof message_buffer - size);
    run_command(fd, message_buffer, size);
    shutdown(fd, SHUT_RDWR);
    close(fd);
    return 0;
}
