#pragma once
#include <memory>
#include <string>

#include "someip/Endpoint.h"

namespace someip {

/// One owner per address and port on this machine, where sockets can be shared and thus prove nothing.
///
/// It is a Unix socket in the abstract namespace, named after the endpoint. Unlike a lock file it belongs to
/// the network namespace, as the address does, needs no folder that all users may write to, and vanishes with
/// its process however that ends: none is ever stale.
class EndpointLock {
  public:
    /// Returns nullptr, with `error`, when another owner has the endpoint.
    static std::unique_ptr<EndpointLock> take(const Endpoint& endpoint, std::string& error);
    ~EndpointLock();
    EndpointLock(const EndpointLock&) = delete;
    EndpointLock& operator=(const EndpointLock&) = delete;

  private:
    explicit EndpointLock(int fd) : m_fd(fd) {}

    const int m_fd;
};

}  // namespace someip
