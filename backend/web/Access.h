#pragma once
/// Who may ask what.
#include <optional>
#include <string>

#include "backend/web/Router.h"

namespace vlmBackend::web {

struct Caller {
    std::string address;        ///< IP address of the peer
    std::string host;           ///< header "Host"
    std::string authorization;  ///< header "Authorization"
};

/// Any thread.
class Access {
  public:
    explicit Access(bool loopback) : m_loopback(loopback) {}

    /// Sets user and role of the request; the answer to one that is refused before any route.
    std::optional<Response> admit(const Caller& caller, Request& request);

  private:
    const bool m_loopback;
};

}  // namespace vlmBackend::web
