#include "supervision/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace kyo {

int notifyServiceManager(std::string_view notification) noexcept {
    const char* named = std::getenv("NOTIFY_SOCKET");
    if (named == nullptr || *named == '\0') {
        return 0;
    }
    const std::string_view path = named;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.front() != '/' && path.front() != '@') {
        return -EAFNOSUPPORT;
    }
    if (path.size() >= sizeof address.sun_path) {
        return -E2BIG;
    }
    path.copy(address.sun_path, path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0';  // an abstract name
    }
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -errno;
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const bool sent = ::sendto(fd, notification.data(), notification.size(), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&address), size) >= 0;
    const int result = sent ? 1 : -errno;
    ::close(fd);
    return result;
}

}  // namespace kyo
