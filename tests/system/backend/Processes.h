#pragma once
/// Processes that a test starts and ends, each by its pid: a broker, the bench's backend, openssl.
#include "tests/support/Loopback.h"

namespace vlmTest {

/// mosquitto on its own port, with additional configuration lines.
class Broker {
  public:
    explicit Broker(std::uint16_t port, std::string configuration = "allow_anonymous true\n");
    ~Broker() { stop(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    void start();
    /// Kills it, like a crash.
    void stop() { m_process.reset(); }
    void restart(std::string configuration);

  private:
    const std::uint16_t m_port;
    std::string m_configuration;
    TemporaryFolder m_folder;
    std::unique_ptr<ChildProcess> m_process;  ///< nullptr while stopped
};

/// Certificates from openssl in a folder: authorities "ca" and "other-ca"; signed by "ca": "server" (for
/// 127.0.0.1), "expired", "elsewhere" (for another host) and "client". Each has a .crt and a .key file.
class Certificates {
  public:
    Certificates();
    std::string file(const std::string& name) const { return m_folder.file(name); }
    /// Broker lines for TLS with that certificate.
    std::string brokerLines(const std::string& certificate) const;

  private:
    TemporaryFolder m_folder;
};

}  // namespace vlmTest
