#include "report/VlmServer.h"

#include <botan/hash.h>
#include <botan/hex.h>

#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstdint>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>

#include "base/DetachedThread.h"
#include "base/VlmLog.h"
#include "json/FieldReader.h"
#include "json/JsonFields.h"
#include "kyo/DateTime.h"
#include "kyo/Histogram.h"
#include "kyo/Status.h"

namespace vlmProd {

namespace {

constexpr const char* kSendToOrx = "int32_t vlmProd::VlmServer::sendToOrx(kyo::Json::Value&)";

constexpr std::int32_t kNoClient = -1;
constexpr int kElementId = 1;
constexpr const char* kVersion = "1.0.0";
constexpr int kTimezone = 20;
constexpr const char* kCorrelationTag = "VLMCorrelTag";
constexpr int kDeliveryMode = 0;
constexpr int kTimeToLiveSeconds = 7200;

/// What a master-control message says.
struct MasterControl {
    std::vector<std::string> permittedDataTypes;
    std::string eventTicket;
    int backendChannelControl = 0;
    int dataDeliveryResult = 0;
};

MasterControl readMasterControl(const Field& message) {
    MasterControl control;
    message.object();
    message.expect(!message.value().isNull(), "an object");
    for (const Field& type : message["permittedDataType"].elements("an array of texts")) {
        type.text(control.permittedDataTypes.emplace_back());
    }
    message["dataDeliveryResult"].number(control.dataDeliveryResult);
    message["backendChannelControl"].number(control.backendChannelControl);
    message["eventTicket"].text(control.eventTicket);
    return control;
}

/// Keeps message identifiers apart from digests that others make of the same texts.
std::string makeSalt() {
    std::string salt = "VLM";
    for (const char* part : {"report", "message", "id"}) {
        salt += '/';
        salt += part;
    }
    return salt;
}

/// Returns an envelope's event identifier: one per configured report.
std::string makeEventId(const Report& report) {
    std::string id = "VLM";
    for (const char* key : {"applicationName", "reportName"}) {
        const std::string part = textOf(member(report.members, key));
        if (!part.empty()) {
            id += '.' + part;
        }
    }
    return id;
}

}  // namespace

VlmServer::VlmServer(std::string serverName, std::vector<std::string> offeredDataTypes,
                     std::shared_ptr<ConfigurationReceiver> configurations)
    : m_serverName(std::move(serverName)),
      m_offeredDataTypes(std::move(offeredDataTypes)),
      m_configurations(std::move(configurations)) {
    try {
        m_client = std::make_unique<kyo::OrxClient>(m_serverName, m_offeredDataTypes);
    } catch (const std::exception& error) {
        VLM_LOG(3, "The backend client could not be created: " << error.what());
    }
    m_configurations->setRequestFunction([this] { generateNewConfigRequest(); });
    if (!m_client) {
        return;
    }
    m_client->registerMasterControlCallback(
        [this](kyo::Json::Value message) { handleMasterControlCallBack(std::move(message)); });
    m_configurations->setOutcomeFunction(
        [this](const std::string& recordId, bool isAccepted, const std::string& reason) {
            m_client->ConfigurationAccepted(recordId, isAccepted, reason);
        });
    m_client->registerConfigResponseCallback([receiver = m_configurations](kyo::Json::Value response) {
        receiver->ConfigResponseCallback(std::move(response));
    });
}

VlmServer::~VlmServer() {
    m_configurations->stopConfigRequestRetry();
    m_configurations->setRequestFunction(nullptr);
    m_configurations->setOutcomeFunction(nullptr);
}

void VlmServer::registerDataDeliveryCallback(DataDeliveryCallback callback) {
    m_dataDeliveryCallback = std::move(callback);
}

void VlmServer::startServer() {
    if (!m_client) {
        VLM_LOG(3, "Server is not yet created, can not start server");
        return;
    }
    m_client->start();
}

void VlmServer::handleMasterControlCallBack(kyo::Json::Value message) {
    static kyo::Counter& refused = kyo::Status::counter("control.refused");
    VLM_LOG(5, "ZEPH-49767 Received master control callback json = " << message);
    VLM_LOG(5, "Data Delivery result = " << member(message, "dataDeliveryResult"));
    VLM_LOG(5, "Backend Channel Control result = " << member(message, "backendChannelControl"));
    VLM_LOG(5, "Size of Supported Data Types = " << member(message, "permittedDataType").size());
    FieldReader reader("the message", Reading::Converting);
    MasterControl control = readMasterControl(reader.root(message));
    if (!reader.good()) {
        refused.add();
        VLM_LOG(3, "Master control refused, " << reader.faults().front());
        return;
    }
    for (const std::string& type : control.permittedDataTypes) {
        VLM_LOG(5, "Supported data type = " << type);
    }
    VLM_LOG(5, "ZEPH-48392 VLM received an event ticket from ORX master control to send data: "
                   << control.eventTicket);
    VLM_LOG(5, "ZEPH-49348: VLM wants to control VLM Data Submission according to BackendChannelControl: "
                   << control.backendChannelControl);
    {
        const std::lock_guard<kyo::Mutex> lock(m_controlMutex);
        m_permittedDataTypes = std::move(control.permittedDataTypes);
        m_eventTicket = std::move(control.eventTicket);
        m_dataDeliveryResult = control.dataDeliveryResult;
        m_backendChannelControl = control.backendChannelControl;
    }
    if (isOpen()) {
        actOnOpenChannel();
    } else {
        actOnClosedChannel(control.dataDeliveryResult);
    }
}

void VlmServer::actOnOpenChannel() {
    static kyo::Counter& acknowledged = kyo::Status::counter("reports.acknowledged");
    static kyo::Histogram& latency = kyo::Histogram::get("latency.reportToResult");
    std::int32_t state = NothingSent;
    {
        const std::lock_guard<kyo::Mutex> lock(m_sendMutex);
        state = m_sendState;
        if (state == Sent && m_resultAwaited) {
            m_resultAwaited = false;
            acknowledged.add();
            latency.add(std::chrono::steady_clock::now() - m_sentAt);
        }
    }
    if (state == NothingSent) {
        try {
            // The thread keeps its own copy of the callback and so does not depend on this object.
            startDetached([callback = m_dataDeliveryCallback] {
                if (callback) {
                    callback(orxStatus::SendNext);
                }
            });
        } catch (const std::system_error& error) {
            VLM_LOG(3, "No thread for the first send could be started: " << error.what());
            deliver(orxStatus::SendNext);
        }
    } else if (state == Sent) {
        deliver(orxStatus::SendNext);
    } else if (state == Failed) {
        deliver(orxStatus::SendLast);
    }

    if (!m_configurationRequested) {
        m_configurationRequested = true;
        generateNewConfigRequest();
        m_configurations->startConfigRequestRetry();
    }
}

void VlmServer::actOnClosedChannel(std::int32_t result) {
    {
        const std::lock_guard<kyo::Mutex> lock(m_sendMutex);
        if (m_sendState == Sent) {
            m_sendState = Failed;
        }
    }
    if (result == 2) {
        deliver(orxStatus::Stop);
    }
}

void VlmServer::deliver(orxStatus status) {
    if (m_dataDeliveryCallback) {
        m_dataDeliveryCallback(status);
    }
}

bool VlmServer::isBlocked() const {
    const std::lock_guard<kyo::Mutex> lock(m_controlMutex);
    return m_backendChannelControl != 0 || m_dataDeliveryResult != 0;
}

bool VlmServer::isOpen() const {
    const std::lock_guard<kyo::Mutex> lock(m_controlMutex);
    return m_backendChannelControl == 0 && m_dataDeliveryResult == 0 && !m_permittedDataTypes.empty();
}

bool VlmServer::isAnythingPermitted() const {
    const std::lock_guard<kyo::Mutex> lock(m_controlMutex);
    return !m_permittedDataTypes.empty();
}

std::int32_t VlmServer::sendToOrx(kyo::Json::Value& report) {
    const Report whole(report);
    if (report.isObject() && isAnythingPermitted()) {
        report.removeMember("catalogId");
    }
    return sendToOrx(whole);
}

std::int32_t VlmServer::sendToOrx(const Report& report) {
    if (!isAnythingPermitted()) {
        return kNothingPermitted;
    }
    kyo::Json::Value envelope(kyo::Json::objectValue);
    {
        const std::lock_guard<kyo::Mutex> lock(m_controlMutex);
        envelope["eventTicket"] = m_eventTicket;
    }
    envelope["elementId"] = kElementId;
    envelope["version"] = kVersion;
    envelope["timezone"] = kTimezone;
    envelope["correlationTag"] = kCorrelationTag;
    envelope["deliveryMode"] = kDeliveryMode;
    VLM_LOG_AS(5, kSendToOrx,
               "ZEPH-51422 VLM sets CorrelationTag and DeliveryMode to default values: "
                   << kCorrelationTag << ", " << kDeliveryMode);
    const std::string eventId = makeEventId(report);
    envelope["eventId"] = eventId;
    VLM_LOG_AS(5, kSendToOrx, "ZEPH-48397 EventId is defined for VLM as: " << eventId);
    envelope["isCallbackAbilityRequested"] = true;
    VLM_LOG_AS(5, kSendToOrx, "ZEPH-48831 VLM setting Callback Ability to: " << true);

    const std::string catalogId = textOf(member(report.members, "catalogId"));
    VLM_LOG_AS(5, kSendToOrx, "ZEPH-50057 Using OrxConfig recordId as CatalogId: " << catalogId);
    // Reports of one tick have the same creation time; name and number tell them apart, also when sent again.
    const std::string messageId =
        getUniqueMessageId(catalogId, textOf(member(report.members, "createDatetime")),
                           textOf(member(report.members, "reportName")) + '#' +
                               textOf(member(report.members, "sequenceNumber")));
    envelope["messageId"] = messageId;
    VLM_LOG_AS(5, kSendToOrx,
               "ZEPH-51421 VLM using catlogId and createDateTime to create UniqueMessageId: " << messageId);
    envelope["timeToLive"] = kTimeToLiveSeconds;
    VLM_LOG_AS(5, kSendToOrx, "ZEPH-49271 VLM sets TimeToLive as default 2 hours: " << kTimeToLiveSeconds);
    const auto seconds = static_cast<kyo::Json::UInt64>(kyo::DateTime::getCurrentTimeMs() / 1000);
    envelope["timestamp"] = seconds;
    VLM_LOG_AS(5, kSendToOrx, "ZEPH-48804 VLM Send data timestamp: " << seconds);
    envelope["orxClientDataReport"] = report.textToSend();
    VLM_LOG_AS(5, kSendToOrx, "ZEPH-48865 VLM sends Report as ORX DATA = " << envelope);

    const std::lock_guard<kyo::Mutex> lock(m_sendMutex);
    const std::int32_t result = m_client ? m_client->SendOrxData(envelope) : kNoClient;
    if (result != 0) {
        VLM_LOG_AS(3, kSendToOrx, "Error in Sending orx data to orxmaster, error code =  " << result);
        VLM_LOG_AS(3, kSendToOrx, "Send vlm Data State: FAILED ");
        m_sendState = Failed;
    } else {
        VLM_LOG_AS(5, kSendToOrx, "Send vlm Data State: SUCCESS ");
        m_sendState = Sent;
        noteSent(messageId);
    }
    return result;
}

void VlmServer::noteSent(const std::string& messageId) {
    static kyo::Counter& overtaken = kyo::Status::counter("reports.overtaken");
    if (messageId == m_lastMessageId) {
        return;  // a repeat: its report is acknowledged already, or still awaits that
    }
    if (m_resultAwaited) {
        overtaken.add();
    }
    m_lastMessageId = messageId;
    m_resultAwaited = true;
    m_sentAt = std::chrono::steady_clock::now();
}

std::string VlmServer::getUniqueMessageId(const std::string& catalogId, const std::string& createDatetime,
                                          const std::string& adjustment) {
    const std::string salt = makeSalt();
    const std::string adjusted = createDatetime + '+' + adjustment;
    VLM_LOG(7, "CATA = " << catalogId);
    VLM_LOG(7, "CDT = " << createDatetime);
    VLM_LOG(7, "SALT = " << salt);
    VLM_LOG(7, "ACDT = " << adjusted);
    try {
        const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
        for (const std::string* part : {&catalogId, &createDatetime, &salt, &adjusted}) {
            hash->update(*part);
            hash->update(0);  // so that where one text ends matters
        }
        const std::string digest = Botan::hex_encode(hash->final());
        VLM_LOG(7, "Generated HASH SIZE = " << digest.size());
        // The first half of the digest, marked as a UUID of a maker's own kind (version 8, variant 1).
        boost::uuids::uuid id = boost::uuids::string_generator()(digest.substr(0, 32));
        id.data[6] = static_cast<std::uint8_t>((id.data[6] & 0x0Fu) | 0x80u);
        id.data[8] = static_cast<std::uint8_t>((id.data[8] & 0x3Fu) | 0x80u);
        std::string text = boost::uuids::to_string(id);
        VLM_LOG(7, "STRING UUID SUCCESS");
        VLM_LOG(7, "UUIDSTR = " << text);
        return text;
    } catch (const std::exception& error) {
        VLM_LOG(3, "No message identifier could be made: " << error.what());
        return {};
    }
}

void VlmServer::generateNewConfigRequest() {
    static kyo::Counter& requests = kyo::Status::counter("config.requests");
    const std::int32_t result = m_client ? m_client->RequestConfiguration() : kNoClient;
    if (result != 0) {
        VLM_LOG(3, "The configuration request could not be sent, error code = " << result);
        return;
    }
    requests.add();
}

}  // namespace vlmProd
