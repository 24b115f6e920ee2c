#pragma once
/// Endpoints as the system calls take them.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "someip/ByteOrder.h"
#include "someip/Endpoint.h"

namespace someip {

inline in6_addr ipv6Of(const Address& address) noexcept {
    std::array<std::uint8_t, sizeof(in6_addr)> bytes{};
    storeBig(bytes.data(), address.high());
    storeBig(bytes.data() + 8, address.low());
    in6_addr out{};
    std::memcpy(&out, bytes.data(), bytes.size());
    return out;
}

/// An address of either family, to be passed to the system or filled by it.
class SystemAddress {
  public:
    SystemAddress() noexcept = default;
    explicit SystemAddress(const sockaddr_in6& address) noexcept { set(address); }
    explicit SystemAddress(const Endpoint& endpoint) noexcept {
        if (endpoint.address.isIpv6()) {
            sockaddr_in6 address{};
            address.sin6_family = AF_INET6;
            address.sin6_port = htons(endpoint.port);
            address.sin6_scope_id = endpoint.address.interface();
            address.sin6_addr = ipv6Of(endpoint.address);
            set(address);
        } else {
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(endpoint.port);
            address.sin_addr.s_addr = htonl(endpoint.address.ipv4());
            set(address);
        }
    }

    Endpoint endpoint(Protocol protocol) const noexcept {
        if (m_any.sin6_family == AF_INET6) {
            std::array<std::uint8_t, sizeof m_any.sin6_addr> bytes{};
            std::memcpy(bytes.data(), &m_any.sin6_addr, bytes.size());
            return {Address::ipv6(loadBig<std::uint64_t>(bytes.data()),
                                  loadBig<std::uint64_t>(bytes.data() + 8), m_any.sin6_scope_id),
                    ntohs(m_any.sin6_port), protocol};
        }
        sockaddr_in address{};
        std::memcpy(&address, &m_any, sizeof address);
        return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port), protocol};
    }

    sockaddr* get() noexcept { return reinterpret_cast<sockaddr*>(&m_any); }
    const sockaddr* get() const noexcept { return reinterpret_cast<const sockaddr*>(&m_any); }
    /// Before a call that fills it: the space that there is.
    socklen_t size() const noexcept { return m_size; }

  private:
    template <typename T>
    void set(const T& address) noexcept {
        std::memcpy(&m_any, &address, sizeof address);
        m_size = sizeof address;
    }

    sockaddr_in6 m_any{};  ///< the longer one of the two
    socklen_t m_size = sizeof(sockaddr_in6);
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
