#pragma once
/// HTTP: connections, limits and headers. What is answered is the router's matter.
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "backend/web/Access.h"
#include "backend/web/Metrics.h"
#include "backend/web/Router.h"

namespace vlmBackend::web {

struct ListenAddress {
    std::string host;  ///< an IP address
    std::uint16_t port = 0;

    bool isLoopback() const;
    std::string url(bool tls) const;
};

/// "127.0.0.1:8642" or "[::1]:8642". Throws std::invalid_argument.
ListenAddress readAddress(const std::string& text);

/// Each connection has one thread of a pool.
class Server {
  public:
    struct Settings {
        ListenAddress address;
        std::string certFile;  ///< PEM; empty: no TLS
        std::string keyFile;
        std::string imageSource;  ///< of another site, for the content security policy: map tiles
    };

    /// Serves from now on. Throws std::runtime_error with the reason, std::system_error when the address is
    /// in use. Router, access and metrics outlive it.
    Server(Settings settings, const Router& router, Access& access, Metrics& metrics);
    /// Breaks all connections and waits for their threads.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// With the port that was free, if 0 was wanted.
    const ListenAddress& address() const;

  private:
    class Listener;
    const std::unique_ptr<Listener> m_listener;
    std::thread m_thread;
};

}  // namespace vlmBackend::web
