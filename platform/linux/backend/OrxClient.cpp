#include "kyo/OrxClient.h"

#include <cstdlib>
#include <mutex>
#include <set>
#include <utility>

#include "backend/DirectoryTransport.h"
#include "backend/MqttTransport.h"
#include "backend/SpoolTransport.h"
#include "log/PlatformLog.h"
#include "machine/Manifest.h"

namespace kyo {

namespace {

std::unique_ptr<orx::Transport> makeTransport(orx::Presence presence) {
    const machine::BackendSettings& settings = machine::manifest().backend;
    if (settings.transport == "mqtt" && settings.spool) {
        return std::make_unique<orx::SpoolTransport>(settings, std::move(presence));
    }
    if (settings.transport == "mqtt") {
        return std::make_unique<orx::MqttTransport>(settings, std::move(presence));
    }
    if (settings.spool) {
        KYO_LOG(3, "backend.spool is not used: the folder backend keeps envelopes by itself");
    }
    return std::make_unique<orx::DirectoryTransport>(settings.directory, std::move(presence),
                                                     settings.limits);
}

/// The transports of clients that live when the process exits. The application never destroys its own.
class Living {
  public:
    static Living& instance() {
        static auto* const all = [] {
            auto* const made = new Living;  // never destroyed, as the exit handler uses it
            std::atexit([] { instance().leaveAll(); });
            return made;
        }();
        return *all;
    }
    void add(orx::Transport* transport) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_transports.insert(transport);
    }
    void remove(orx::Transport* transport) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_transports.erase(transport);
    }

  private:
    void leaveAll() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (orx::Transport* const transport : m_transports) {
            transport->leave();
        }
    }
    std::mutex m_mutex;
    std::set<orx::Transport*> m_transports;  ///< guarded by the mutex
};

}  // namespace

class OrxClient::Implementation {
  public:
    explicit Implementation(std::unique_ptr<orx::Transport> chosen) : transport(std::move(chosen)) {
        Living::instance().add(transport.get());
    }
    ~Implementation() { Living::instance().remove(transport.get()); }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    const std::unique_ptr<orx::Transport> transport;
};

OrxClient::OrxClient(std::string serverName, std::vector<std::string> offeredDataTypes)
    : m_implementation(std::make_unique<Implementation>(
          makeTransport({std::move(serverName), std::move(offeredDataTypes)}))) {}

OrxClient::~OrxClient() = default;

void OrxClient::registerMasterControlCallback(JsonCallback callback) {
    m_implementation->transport->setMasterControlCallback(std::move(callback));
}

void OrxClient::registerConfigResponseCallback(JsonCallback callback) {
    m_implementation->transport->setConfigResponseCallback(std::move(callback));
}

void OrxClient::start() {
    m_implementation->transport->start();
}

std::int32_t OrxClient::SendOrxData(const Json::Value& envelope) {
    return m_implementation->transport->send(envelope);
}

std::int32_t OrxClient::RequestConfiguration() {
    return m_implementation->transport->requestConfiguration();
}

void OrxClient::ConfigurationAccepted(const std::string& recordId, bool isAccepted,
                                      const std::string& reason) {
    m_implementation->transport->configurationAccepted(recordId, isAccepted, reason);
}

}  // namespace kyo
