#include "avcore/bus/transport.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace avcore {
namespace {

class plain final : public transport {
public:
    using transport::transport;

    outcome authenticate(bool) override { return outcome::done; }

    transfer read(std::span<std::byte> bytes) override {
        return judge(recv(fd(), bytes.data(), bytes.size(), MSG_DONTWAIT), outcome::wants_read);
    }

    transfer write(std::span<const std::byte> bytes) override {
        return judge(send(fd(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
                     outcome::wants_write);
    }

    const std::string &peer_name() const override { return nobody_; }

private:
    transfer judge(ssize_t size, outcome later) {
        if (size > 0)
            return {outcome::done, static_cast<size_t>(size)};
        if (size == 0)
            return {outcome::ended};
        if (errno == EAGAIN || errno == EINTR)
            return {later};
        return {fail(strerror(errno))};
    }

    std::string nobody_;
};

} // namespace

std::unique_ptr<transport> plain_transport(unique_fd fd) {
    return std::make_unique<plain>(std::move(fd));
}

} // namespace avcore
