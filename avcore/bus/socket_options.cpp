#include "avcore/bus/socket_options.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace avcore {
namespace {

constexpr int PROBE_AFTER_S = 2;
constexpr int PROBE_EVERY_S = 1;
constexpr int GONE_AFTER_MS = 5'000;

} // namespace

void set_option(int fd, int level, int option, int value) {
    setsockopt(fd, level, option, &value, sizeof value);
}

void watch_for_death(int fd) {
    set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, PROBE_AFTER_S);
    set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, PROBE_EVERY_S);
    set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, GONE_AFTER_MS);
}

} // namespace avcore
