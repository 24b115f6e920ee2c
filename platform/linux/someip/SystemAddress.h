#pragma once
/// Endpoints as the system calls take them.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "someip/ByteOrder.h"
#include "someip/Endpoint.h"

namespace someip {

/// An address of either family, to be passed to the system or filled by it.
class SystemAddress {
  public:
    SystemAddress() noexcept = default;
    explicit SystemAddress(const sockaddr_in6& address) noexcept : m_any{.v6 = address} {}
    explicit SystemAddress(const Endpoint& endpoint) noexcept {
        if (endpoint.address.isIpv6()) {
            m_any.v6.sin6_family = AF_INET6;
            m_any.v6.sin6_port = htons(endpoint.port);
            m_any.v6.sin6_scope_id = endpoint.address.interface();
            storeBig(m_any.v6.sin6_addr.s6_addr, endpoint.address.high());
            storeBig(m_any.v6.sin6_addr.s6_addr + 8, endpoint.address.low());
            m_size = sizeof m_any.v6;
        } else {
            m_any.v4.sin_family = AF_INET;
            m_any.v4.sin_port = htons(endpoint.port);
            m_any.v4.sin_addr.s_addr = htonl(endpoint.address.ipv4());
            m_size = sizeof m_any.v4;
        }
    }

    Endpoint endpoint(Protocol protocol) const noexcept {
        if (m_any.base.sa_family == AF_INET6) {
            const std::uint8_t* const bytes = m_any.v6.sin6_addr.s6_addr;
            return {Address::ipv6(loadBig<std::uint64_t>(bytes), loadBig<std::uint64_t>(bytes + 8),
                                  m_any.v6.sin6_scope_id),
                    ntohs(m_any.v6.sin6_port), protocol};
        }
        return {ntohl(m_any.v4.sin_addr.s_addr), ntohs(m_any.v4.sin_port), protocol};
    }

    sockaddr* get() noexcept { return &m_any.base; }
    const sockaddr* get() const noexcept { return &m_any.base; }
    /// Before a call that fills it: the space that there is.
    socklen_t size() const noexcept { return m_size; }

  private:
    union Any {
        sockaddr base;
        sockaddr_in v4;
        sockaddr_in6 v6;
    };
    Any m_any{.v6 = {}};
    socklen_t m_size = sizeof(Any);
};

inline int familyOf(const Address& address) noexcept {
    return address.isIpv6() ? AF_INET6 : AF_INET;
}

/// The endpoint that a socket is bound to; zero on failure.
inline Endpoint boundEndpoint(int fd, Protocol protocol) noexcept {
    SystemAddress bound;
    socklen_t size = bound.size();
    return ::getsockname(fd, bound.get(), &size) == 0 ? bound.endpoint(protocol) : Endpoint{};
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
