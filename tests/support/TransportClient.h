#pragma once
/// The client of a backend transport.
#include "backend/Transport.h"
#include "machine/Manifest.h"
#include "tests/support/Test.h"

namespace vlmTest {

/// Collects what a transport's callbacks receive. Must outlive the transport.
class TransportClient {
  public:
    std::vector<kyo::Json::Value> controls() const { return m_controls.all(); }
    std::vector<kyo::Json::Value> answers() const { return m_answers.all(); }
    bool awaitControls(std::size_t count) const {
        return eventually([&] { return controls().size() >= count; });
    }
    bool awaitAnswers(std::size_t count) const {
        return eventually([&] { return answers().size() >= count; });
    }

  protected:
    /// Call it before the transport's start. Callbacks must not come on this thread.
    void listenTo(kyo::orx::Transport& transport) {
        transport.setMasterControlCallback([this](auto message) { note(m_controls, std::move(message)); });
        transport.setConfigResponseCallback([this](auto answer) { note(m_answers, std::move(answer)); });
    }

  private:
    void note(SharedList<kyo::Json::Value>& list, kyo::Json::Value value) {
        EXPECT_NE(std::this_thread::get_id(), m_maker);
        list.add(std::move(value));
    }

    const std::thread::id m_maker = std::this_thread::get_id();
    SharedList<kyo::Json::Value> m_controls;
    SharedList<kyo::Json::Value> m_answers;
};

/// A transport with its client.
template <typename Transport>
class StartedTransport : public TransportClient {
  public:
    template <typename... Arguments>
    explicit StartedTransport(Arguments&&... arguments)
        : m_transport(std::make_unique<Transport>(std::forward<Arguments>(arguments)...)) {
        listenTo(*m_transport);
        m_transport->start();
    }
    Transport& transport() { return *m_transport; }
    void end() { m_transport.reset(); }

  private:
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
