#include "ScriptedOrxClient.h"

#include <utility>

namespace kyo::orx {
class Transport {};
}  // namespace kyo::orx

namespace vlmTest {

ScriptedClient& ScriptedClient::current() {
    static auto* const instance = new ScriptedClient;
    return *instance;
}

void ScriptedClient::answerSends(std::function<std::int32_t(const kyo::Json::Value&)> answer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answer = std::move(answer);
}

std::vector<kyo::Json::Value> ScriptedClient::envelopes() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_envelopes;
}

int ScriptedClient::requests() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

bool ScriptedClient::started() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_started;
}

void ScriptedClient::masterControl(const kyo::Json::Value& message) const {
    onMasterControl(message);
}

void ScriptedClient::configResponse(const kyo::Json::Value& answer) const {
    onConfigResponse(answer);
}

void ScriptedClient::reset() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answer = nullptr;
    m_envelopes.clear();
    m_requests = 0;
    m_started = false;
}

void ScriptedClient::start() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_started = true;
}

std::int32_t ScriptedClient::send(const kyo::Json::Value& envelope) {
    std::function<std::int32_t(const kyo::Json::Value&)> answer;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_envelopes.push_back(envelope);
        answer = m_answer;
    }
    return answer ? answer(envelope) : 0;
}

std::int32_t ScriptedClient::request() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_requests;
    return 0;
}

kyo::Json::Value control(int result, int channel, std::vector<std::string> permitted,
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

using vlmTest::ScriptedClient;

OrxClient::OrxClient(std::string, std::vector<std::string>) {
    ScriptedClient::current().reset();
}
OrxClient::~OrxClient() = default;
void OrxClient::registerMasterControlCallback(JsonCallback callback) {
    ScriptedClient::current().onMasterControl = std::move(callback);
}
void OrxClient::registerConfigResponseCallback(JsonCallback callback) {
    ScriptedClient::current().onConfigResponse = std::move(callback);
}
void OrxClient::start() {
    ScriptedClient::current().start();
}
std::int32_t OrxClient::SendOrxData(const Json::Value& envelope) {
    return ScriptedClient::current().send(envelope);
}
std::int32_t OrxClient::RequestConfiguration() {
    return ScriptedClient::current().request();
}

}  // namespace kyo
