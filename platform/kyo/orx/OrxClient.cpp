#include "kyo/OrxClient.h"

#include <utility>

#include "kyo/orx/DirectoryTransport.h"
#include "kyo/orx/MqttTransport.h"
#include "machine/Manifest.h"

namespace kyo {

namespace {

std::unique_ptr<orx::Transport> makeTransport(orx::Presence presence) {
    const machine::BackendSettings& settings = machine::manifest().backend;
    if (settings.transport == "mqtt") {
        return std::make_unique<orx::MqttTransport>(settings.mqtt, std::move(presence));
    }
    return std::make_unique<orx::DirectoryTransport>(settings.directory, std::move(presence));
}

}  // namespace

OrxClient::OrxClient(std::string serverName, std::vector<std::string> offeredDataTypes)
    : m_transport(makeTransport({std::move(serverName), std::move(offeredDataTypes)})) {}

OrxClient::~OrxClient() = default;

void OrxClient::registerMasterControlCallback(JsonCallback callback) {
    m_transport->setMasterControlCallback(std::move(callback));
}

void OrxClient::registerConfigResponseCallback(JsonCallback callback) {
    m_transport->setConfigResponseCallback(std::move(callback));
}

void OrxClient::start() {
    m_transport->start();
}

std::int32_t OrxClient::SendOrxData(const Json::Value& envelope) {
    return m_transport->send(envelope);
}

std::int32_t OrxClient::RequestConfiguration() {
    return m_transport->requestConfiguration();
}

}  // namespace kyo
