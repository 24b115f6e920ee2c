#include "ScriptedOrxClient.h"

#include <utility>

namespace vlmTest {

ScriptedClient& ScriptedClient::current() {
    static auto* const instance = new ScriptedClient;
    return *instance;
}

void ScriptedClient::reset() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answer = nullptr;
    m_envelopes.clear();
    m_requests = 0;
}

kyo::Json::Value control(int result, int channel, const std::vector<std::string>& permitted,
                         const std::string& ticket) {
    kyo::Json::Value message(kyo::Json::objectValue);
    message["eventTicket"] = ticket;
    message["permittedDataType"] = kyo::Json::Value(kyo::Json::arrayValue);
    for (const std::string& type : permitted) {
        message["permittedDataType"].append(type);
    }
    message["backendChannelControl"] = channel;
    message["dataDeliveryResult"] = result;
    return message;
}

kyo::Json::Value report(const std::string& name, int number, const std::string& created) {
    kyo::Json::Value value(kyo::Json::objectValue);
    value["reportName"] = name;
    value["applicationName"] = "App";
    value["catalogId"] = "catalog-1";
    value["sequenceNumber"] = number;
    value["createDatetime"] = created;
    value["signalCollections"] = kyo::Json::Value(kyo::Json::arrayValue);
    return value;
}

kyo::Json::Value reportIn(const kyo::Json::Value& envelope) {
    kyo::Json::Value value;
    kyo::Json::Reader().parse(envelope["orxClientDataReport"].asString(), value);
    return value;
}

}  // namespace vlmTest

namespace kyo {

class OrxClient::Implementation {};

using vlmTest::ScriptedClient;

OrxClient::OrxClient(std::string, std::vector<std::string>) {
    ScriptedClient::current().reset();
}
OrxClient::~OrxClient() = default;
void OrxClient::registerMasterControlCallback(JsonCallback callback) {
    ScriptedClient::current().m_onMasterControl = std::move(callback);
}
void OrxClient::registerConfigResponseCallback(JsonCallback) {}
void OrxClient::start() {}
std::int32_t OrxClient::SendOrxData(const Json::Value& envelope) {
    ScriptedClient& client = ScriptedClient::current();
    {
        const std::lock_guard<std::mutex> lock(client.m_mutex);
        client.m_envelopes.push_back(envelope);
    }
    return client.answer();
}
std::int32_t OrxClient::RequestConfiguration() {
    ScriptedClient& client = ScriptedClient::current();
    ++client.m_requests;
    return client.answer();
}
void OrxClient::ConfigurationAccepted(const std::string&, bool, const std::string&) {}

}  // namespace kyo
