#include "backend/TlsContext.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <utility>

namespace kyo::orx {

namespace {

/// The reason that the library gives for the last failed call. Clears what it keeps.
std::string lastReason() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    const char* const reason = ERR_reason_error_string(code);
    return reason != nullptr ? reason : "error " + std::to_string(code);
}

std::string describe(int error, const std::string& host) {
    switch (error) {
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
            return "an unknown authority signed the broker's certificate";
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return "the broker's certificate has expired";
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return "the broker's certificate is not valid yet";
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return "the broker's certificate is for another host than " + host;
        default:
            return "the broker's certificate is refused";
    }
}

}  // namespace

TlsContext::TlsContext(std::string host)
    : m_host(std::move(host)), m_native(SSL_CTX_new(TLS_client_method())) {}

std::unique_ptr<TlsContext> TlsContext::make(const machine::MqttBackend& settings, const std::string& host,
                                             std::string& error) {
    std::unique_ptr<TlsContext> context(new TlsContext(host));
    return context->use(settings, error) ? std::move(context) : nullptr;
}

bool TlsContext::use(const machine::MqttBackend& settings, std::string& error) {
    ERR_clear_error();
    const auto check = [&error](bool good, const std::string& what) {
        if (!good) {
            error = what + " cannot be used: " + lastReason();
        }
        return good;
    };
    if (!check(m_native != nullptr && SSL_CTX_set_min_proto_version(m_native, TLS1_2_VERSION) == 1, "TLS")) {
        return false;
    }
    SSL_CTX_set_app_data(m_native, this);
    SSL_CTX_set_verify(m_native, SSL_VERIFY_PEER, onVerified);
    SSL_CTX_set_info_callback(m_native, onEvent);
    X509_VERIFY_PARAM* const expected = SSL_CTX_get0_param(m_native);
    if (X509_VERIFY_PARAM_set1_ip_asc(expected, m_host.c_str()) != 1 &&
        !check(X509_VERIFY_PARAM_set1_host(expected, m_host.c_str(), m_host.size()) == 1,
               "the host name " + m_host)) {
        return false;
    }
    ERR_clear_error();
    const std::string& ca = settings.caFile;
    const char* const cert = settings.certFile.c_str();
    const char* const key = settings.keyFile.c_str();
    if (!check(ca.empty() ? SSL_CTX_set_default_verify_paths(m_native) == 1
                          : SSL_CTX_load_verify_locations(m_native, ca.c_str(), nullptr) == 1,
               ca.empty() ? "the system's authorities" : ca)) {
        return false;
    }
    return *cert == '\0' ||
           (check(SSL_CTX_use_certificate_chain_file(m_native, cert) == 1, cert) &&
            check(SSL_CTX_use_PrivateKey_file(m_native, key, SSL_FILETYPE_PEM) == 1, key) &&
            check(SSL_CTX_check_private_key(m_native) == 1, std::string(key) + " with " + cert));
}

void TlsContext::noteCause(std::string cause) {
    if (m_cause.empty()) {
        m_cause = std::move(cause);  // what follows is its consequence
    }
}

int TlsContext::onVerified(int good, X509_STORE_CTX* state) {
    if (good != 1) {
        auto* const connection =
            static_cast<SSL*>(X509_STORE_CTX_get_ex_data(state, SSL_get_ex_data_X509_STORE_CTX_idx()));
        auto* const self = static_cast<TlsContext*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
        const int error = X509_STORE_CTX_get_error(state);
        self->noteCause(describe(error, self->m_host) + " (" + X509_verify_cert_error_string(error) + ')');
    }
    return good;
}

/// The broker's alerts say what it refuses of this side.
void TlsContext::onEvent(const SSL* connection, int where, int value) {
    if ((where & SSL_CB_ALERT) == 0) {
        return;
    }
    auto* const self = static_cast<TlsContext*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
    const bool hasCertificate = SSL_get_certificate(connection) != nullptr;
    const std::string alert = SSL_alert_desc_string_long(value);
    if ((where & SSL_CB_READ) == 0) {
        if ((value & 0xFF) == SSL_AD_PROTOCOL_VERSION) {
            self->noteCause("the broker speaks no TLS 1.2 or newer (" + alert + ')');
        }
        return;
    }
    switch (value & 0xFF) {
        case SSL_AD_CLOSE_NOTIFY:
            return;
        case SSL_AD_PROTOCOL_VERSION:
            self->noteCause("the broker speaks no TLS 1.2 or newer (" + alert + ')');
            return;
        case SSL_AD_HANDSHAKE_FAILURE:
        case SSL_AD_CERTIFICATE_REQUIRED:
        case SSL_AD_BAD_CERTIFICATE:
        case SSL_AD_UNSUPPORTED_CERTIFICATE:
        case SSL_AD_CERTIFICATE_REVOKED:
        case SSL_AD_CERTIFICATE_EXPIRED:
        case SSL_AD_CERTIFICATE_UNKNOWN:
        case SSL_AD_UNKNOWN_CA:
        case SSL_AD_DECRYPT_ERROR:
            self->noteCause((hasCertificate ? "the broker refuses the vehicle's certificate ("
                                            : "the broker wants a certificate of the vehicle (") +
                            alert + ')');
            return;
        default:
            self->noteCause("the broker ends the TLS connection (" + alert + ')');
    }
}

}  // namespace kyo::orx
