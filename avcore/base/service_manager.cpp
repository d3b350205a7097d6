#include "avcore/base/service_manager.h"

#include "shared/unique_fd.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace avcore {

void tell_service_manager(std::string_view news) {
    const char *named = getenv("NOTIFY_SOCKET");
    const std::string_view path = named != nullptr ? named : "";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return;
    memcpy(address.sun_path, path.data(), path.size());
    if (path.front() == '@') // of the names that aren't in the file system
        address.sun_path[0] = '\0';
    const unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    // Nobody is there to be told of a failure but who waits for the news.
    [[maybe_unused]] const ssize_t sent =
        sendto(fd.get(), news.data(), news.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&address),
               static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size()));
}

} // namespace avcore
