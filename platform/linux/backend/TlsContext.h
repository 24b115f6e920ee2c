#pragma once
/// What a TLS connection to a broker needs, and why one has failed.
#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "machine/Manifest.h"

namespace kyo::orx {

/// OpenSSL's settings for connections to one host: TLS 1.2 or newer, and the host's certificate and name are
/// always verified. One thread.
class TlsContext {
  public:
    /// None, with the cause in `error`, when a file cannot be used.
    static std::unique_ptr<TlsContext> make(const machine::MqttBackend& settings, const std::string& host,
                                            std::string& error);
    ~TlsContext() { SSL_CTX_free(m_native); }
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    SSL_CTX* native() const { return m_native; }

    /// Returns why the last connection failed if certificates or versions were the cause; empty otherwise.
    const std::string& cause() const { return m_cause; }

  private:
    explicit TlsContext(std::string host);
    bool use(const machine::MqttBackend& settings, std::string& error);
    void noteCause(std::string cause);
    static int onVerified(int good, X509_STORE_CTX* state);
    static void onEvent(const SSL* connection, int where, int value);

    const std::string m_host;
    SSL_CTX* const m_native;
    std::string m_cause;
};

}  // namespace kyo::orx
