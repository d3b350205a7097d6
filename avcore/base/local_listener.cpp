#include "avcore/base/local_listener.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/un.h>

namespace avcore {
namespace {

constexpr int BACKLOG = 64;

std::runtime_error failure(const std::string &what, const std::string &path, const char *why) {
    return std::runtime_error(what + ' ' + path + ": " + why);
}

bool somebody_listens(const sockaddr_un &address, int type) {
    const unique_fd probe(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
               0 ||
           errno == EAGAIN || errno == EPROTOTYPE; // the latter: on a socket of another type
}

bool is_socket(const std::string &path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// The name's mode is the socket's, less the umask: nobody else gets in between.
bool take_name(int fd, const sockaddr_un &address, mode_t mode) {
    if (mode != 0 && fchmod(fd, mode) != 0)
        return false;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return false;
    return mode == 0 || chmod(address.sun_path, mode) == 0;
}

} // namespace

local_listener::local_listener(const std::string &what, std::string path, const kind &wanted)
    : path_(std::move(path)), fd_(socket(AF_UNIX, wanted.type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path)
        throw failure(what, path_, "the path is longer than a socket's can be");
    memcpy(address.sun_path, path_.data(), path_.size());
    if (!fd_.valid())
        throw failure(what, path_, strerror(errno));
    if (somebody_listens(address, wanted.type))
        throw failure(what, path_, "another program listens there");
    if (!take_name(fd_.get(), address, wanted.mode)) {
        if (errno != EADDRINUSE)
            throw failure(what, path_, strerror(errno));
        if (!is_socket(path_))
            throw failure(what, path_, "there is something else than a socket");
        // Nobody answers there: it is that of one that died.
        if (unlink(path_.c_str()) != 0 || !take_name(fd_.get(), address, wanted.mode))
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
