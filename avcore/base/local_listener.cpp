#include "avcore/base/local_listener.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>

namespace avcore {
namespace {

constexpr int BACKLOG = 64;

std::runtime_error failure(const std::string &what, const std::string &path, const char *why) {
    return std::runtime_error(what + ' ' + path + ": " + why);
}

bool somebody_listens(const sockaddr_un &address) {
    const unique_fd probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
               0 ||
           errno == EAGAIN;
}

} // namespace

local_listener::local_listener(const std::string &what, std::string path)
    : path_(std::move(path)),
      fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path)
        throw failure(what, path_, "the path is longer than a socket's can be");
    memcpy(address.sun_path, path_.data(), path_.size());
    if (!fd_.valid())
        throw failure(what, path_, strerror(errno));
    if (somebody_listens(address))
        throw failure(what, path_, "another program listens there");
    const auto *name = reinterpret_cast<const sockaddr *>(&address);
    if (bind(fd_.get(), name, sizeof address) != 0) {
        // Nobody answers at what is there: the socket of one that died.
        if (errno != EADDRINUSE || unlink(path_.c_str()) != 0 ||
            bind(fd_.get(), name, sizeof address) != 0)
            throw failure(what, path_, strerror(errno));
    }
    if (listen(fd_.get(), BACKLOG) != 0) {
        const int error = errno;
        unlink(path_.c_str());
        throw failure(what, path_, strerror(error));
    }
}

local_listener::~local_listener() {
    unlink(path_.c_str());
}

unique_fd local_listener::accept() const {
    return unique_fd(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

} // namespace avcore
