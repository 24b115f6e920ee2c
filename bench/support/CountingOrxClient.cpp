// A backend client that accepts every envelope at once and records the time.
#include "support/CountingOrxClient.h"

#include <utility>

#include "kyo/OrxClient.h"

namespace vlmBench {

CountingClient& CountingClient::instance() {
    static auto* const client = new CountingClient;
    return *client;
}

void CountingClient::open() {
    kyo::Json::Value message(kyo::Json::objectValue);
    message["eventTicket"] = "ticket";
    message["permittedDataType"][0] = "VLM";
    message["backendChannelControl"] = 0;
    message["dataDeliveryResult"] = 0;
    onMasterControl(std::move(message));
}

std::optional<CountingClient::Clock::time_point> CountingClient::waitFor(std::uint64_t count) {
    std::unique_lock lock(m_guard);
    const bool came = m_changed.wait_for(lock, std::chrono::seconds(10), [&] { return m_count >= count; });
    return came ? std::optional(m_last) : std::nullopt;
}

std::uint64_t CountingClient::count() {
    const std::lock_guard lock(m_guard);
    return m_count;
}

void CountingClient::taken(const kyo::Json::Value& envelope) {
    const auto now = Clock::now();
    const std::lock_guard lock(m_guard);
    m_last = now;
    m_bytes = envelope["orxClientDataReport"].asString().size();
    ++m_count;
    m_changed.notify_all();
}

std::size_t CountingClient::reportBytes() {
    const std::lock_guard lock(m_guard);
    return m_bytes;
}

}  // namespace vlmBench

namespace kyo {

class OrxClient::Implementation {};

using vlmBench::CountingClient;

OrxClient::OrxClient(std::string /*serverName*/, std::vector<std::string> /*offeredDataTypes*/) {}
OrxClient::~OrxClient() = default;
void OrxClient::registerMasterControlCallback(JsonCallback callback) {
    CountingClient::instance().onMasterControl = std::move(callback);
}
void OrxClient::registerConfigResponseCallback(JsonCallback /*callback*/) {}
void OrxClient::start() {
    CountingClient::instance().started = true;
}
std::int32_t OrxClient::SendOrxData(const Json::Value& envelope) {
    CountingClient::instance().taken(envelope);
    return 0;
}
std::int32_t OrxClient::RequestConfiguration() {
    return 0;
}
void OrxClient::ConfigurationAccepted(const std::string& /*recordId*/, bool /*isAccepted*/,
                                      const std::string& /*reason*/) {}

}  // namespace kyo
