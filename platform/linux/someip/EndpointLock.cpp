#include "someip/EndpointLock.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace someip {

std::unique_ptr<EndpointLock> EndpointLock::take(const Endpoint& endpoint, std::string& error) {
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = "cannot make a lock for " + toText(endpoint) + ": " + std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<EndpointLock> lock(new EndpointLock(fd));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // The zero byte before it makes the name an abstract one.
    const std::string name = "someip-discovery " + toText(endpoint);
    std::copy_n(name.begin(), std::min(name.size(), sizeof address.sun_path - 1), address.sun_path + 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), size) != 0) {
        error = errno == EADDRINUSE ? "another process of this kind uses " + toText(endpoint) +
                                          "; give each an address of its own"
                                    : "cannot lock " + toText(endpoint) + ": " + std::strerror(errno);
        return nullptr;
    }
    return lock;
}

EndpointLock::~EndpointLock() {
    ::close(m_fd);
}

}  // namespace someip
