#pragma once
/// Endpoints as the system calls take them.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "someip/Endpoint.h"

namespace someip {

inline sockaddr_in toSystem(const Endpoint& endpoint) noexcept {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(endpoint.address);
    address.sin_port = htons(endpoint.port);
    return address;
}

inline Endpoint fromSystem(const sockaddr_in& address, Protocol protocol) noexcept {
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port), protocol};
}

/// The endpoint that a socket is bound to; zero on failure.
inline Endpoint boundEndpoint(int fd, Protocol protocol) noexcept {
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    return ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) == 0 ? fromSystem(bound, protocol)
                                                                              : Endpoint{};
}

/// Closes a socket that cannot be opened. `error` gets the step that has failed, with errno's reason.
inline std::nullptr_t openFailed(int fd, const char* step, const Endpoint& endpoint, std::string& error) {
    error = std::string(step) + " " + toText(endpoint) + ": " + std::strerror(errno);
    if (fd >= 0) {
        ::close(fd);
    }
    return nullptr;
}

inline bool setOption(int fd, int level, int option, int value) noexcept {
    return ::setsockopt(fd, level, option, &value, sizeof value) == 0;
}

}  // namespace someip
