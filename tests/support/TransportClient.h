#pragma once
/// A backend transport with its client.
#include "backend/Transport.h"
#include "machine/Manifest.h"
#include "tests/support/Test.h"

namespace vlmTest {

/// A transport, and what its callbacks have received.
template <typename Transport>
class StartedTransport {
  public:
    template <typename... Arguments>
    explicit StartedTransport(Arguments&&... arguments)
        : m_transport(std::make_unique<Transport>(std::forward<Arguments>(arguments)...)) {
        const auto noting = [this, maker = std::this_thread::get_id()](SharedList<kyo::Json::Value>& list) {
            return [this, maker, &list](auto value) {
                const std::lock_guard<std::mutex> lock(busy);
                EXPECT_NE(std::this_thread::get_id(), maker);
                list.add(std::move(value));
            };
        };
        m_transport->setMasterControlCallback(noting(m_controls));
        m_transport->setConfigResponseCallback(noting(m_answers));
        m_transport->start();
    }
    std::mutex busy;  ///< the callbacks wait while a test has it
    Transport& transport() { return *m_transport; }
    void end() { m_transport.reset(); }
    std::vector<kyo::Json::Value> controls() const { return m_controls.all(); }
    std::vector<kyo::Json::Value> answers() const { return m_answers.all(); }
    bool awaitControls(std::size_t count) const {
        return eventually([&] { return controls().size() >= count; });
    }
    bool awaitAnswers(std::size_t count) const {
        return eventually([&] { return answers().size() >= count; });
    }

  private:
    SharedList<kyo::Json::Value> m_controls;
    SharedList<kyo::Json::Value> m_answers;
    std::unique_ptr<Transport> m_transport;
};

/// A broker of this machine, to which a lost connection soon comes again.
inline machine::MqttBackend brokerAt(std::uint16_t port) {
    machine::MqttBackend broker;
    broker.port = port;
    broker.prefix = "test/vehicle";
    broker.reconnectMaxSeconds = 1;
    return broker;
}

/// A backend behind that broker.
inline machine::BackendSettings behind(const machine::MqttBackend& broker) {
    machine::BackendSettings settings;
    settings.mqtt = broker;
    return settings;
}

/// An envelope of about `size` bytes.
inline kyo::Json::Value envelope(const std::string& id, std::size_t size = 0) {
    kyo::Json::Value value(kyo::Json::objectValue);
    value["messageId"] = id;
    value["orxClientDataReport"] = std::string(size, 'x');
    return value;
}

}  // namespace vlmTest
