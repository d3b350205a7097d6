#include "control/cmdsock.h"

#include "control/commands.h"
#include "core/base/log.h"
#include "core/base/reply.h"
#include "core/system/clock.h"
#include "core/system/descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int LISTEN_BACKLOG = 5;
constexpr int REPLY_BUFFER =
    REPLY_SIZE; // doubled by the kernel, for what it keeps beside the bytes

uint8_t message_buffer[COMMAND_MESSAGE_SIZE];

// The connections that are set aside, the oldest first; `poll_fd` watches all of them.
struct waiting_room {
    struct place {
        int fd;
        int64_t since_ms;
    };
    int poll_fd = -1;
    size_t taken = 0;
    std::array<place, CMDSOCK_WAITING_MAX> places;
};

waiting_room waiting;

void leave(size_t place) {
    std::copy(waiting.places.begin() + place + 1, waiting.places.begin() + waiting.taken,
              waiting.places.begin() + place);
    --waiting.taken;
}

// The descriptor leaves the watch with its last close.
void drop(size_t place) {
    close(waiting.places[place].fd);
    leave(place);
}

void set_aside(int fd) {
    if (waiting.poll_fd < 0)
        waiting.poll_fd = behind_capture(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(waiting.poll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
        perror("cmdsock_accept()/epoll_ctl()");
        close(fd);
        return;
    }
    if (waiting.taken == CMDSOCK_WAITING_MAX)
        drop(0);
    waiting.places[waiting.taken++] = {fd, monotonic_ms()};
}

bool has_data(int fd) {
    char first;
    return recv(fd, &first, sizeof first, MSG_PEEK | MSG_DONTWAIT) >= 0;
}

// One read, one command. Returns whether the connection is through with, and the result of the read
// in `result`; a connection that has nothing to read yet is the caller's again.
bool serve(int fd, int *result) {
    const ssize_t received = read(fd, message_buffer, sizeof message_buffer);
    if (received < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    *result = received < 0 ? -1 : 0;
    if (received < 0) {
        perror("cmdsock_accept()/read()");
        close(fd);
        return true;
    }
    // What an earlier message left behind completes nothing.
    const auto size = static_cast<size_t>(received);
    memset(message_buffer + size, 0, sizeof message_buffer - size);
    run_command(fd, message_buffer, size);
    shutdown(fd, SHUT_RDWR);
    close(fd);
    return true;
}

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
    const int fd = accept4(listen_fd, reinterpret_cast<sockaddr *>(&peer), &peer_size,
                           SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        perror("cmdsock_accept()/accept()");
        return -1;
    }
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &REPLY_BUFFER, sizeof REPLY_BUFFER);
    int result = 0;
    if (!serve(fd, &result))
        set_aside(fd);
    return result;
}

int cmdsock_waiting_descriptor() {
    if (waiting.taken == 0)
        return -1;
    const int64_t now = monotonic_ms();
    while (waiting.taken != 0 && now - waiting.places[0].since_ms >= CMDSOCK_PATIENCE_MS &&
           !has_data(waiting.places[0].fd))
        drop(0);
    return waiting.taken != 0 ? waiting.poll_fd : -1;
}

void cmdsock_serve_waiting() {
    for (size_t place = 0; place < waiting.taken;) {
        int result = 0;
        if (serve(waiting.places[place].fd, &result))
            leave(place);
        else
            ++place;
    }
}
