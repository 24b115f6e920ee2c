#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kyo/Json.h"
#include "kyo/Mutex.h"
#include "kyo/OrxClient.h"
#include "report/ConfigurationReceiver.h"
#include "report/Report.h"
#include "report/orxStatus.h"

namespace vlmProd {

/// The application's end of the backend link: stores the state of the backend's master-control messages, puts
/// each report into an envelope, and sends it once.
///
/// Submission control creates it once and it is never destroyed in the running process: the client's thread
/// calls back until the process ends.
class VlmServer {
  public:
    using DataDeliveryCallback = std::function<void(orxStatus)>;

    /// Returned by "sendToOrx" when the backend permits no data type.
    static constexpr std::int32_t kNothingPermitted = -3;

    /// `configurations` receives the configurations of the backend.
    VlmServer(std::string serverName, std::vector<std::string> offeredDataTypes,
              std::shared_ptr<ConfigurationReceiver> configurations);
    ~VlmServer();
    VlmServer(const VlmServer&) = delete;
    VlmServer& operator=(const VlmServer&) = delete;

    /// Before startServer(). Called on the client's thread, the first time on a thread of its own.
    void registerDataDeliveryCallback(DataDeliveryCallback callback);

    /// Connects in the background.
    void startServer();

    /// Handles one master-control message, on the client's thread. Each replaces the previous one completely;
    /// one with a member of the wrong type is refused and changes nothing.
    void handleMasterControlCallBack(kyo::Json::Value message);

    /// Sends one report, without its catalog id, in an envelope. Returns 0 when it was sent,
    /// kNothingPermitted, or the client's code. Blocks for at most the client's flush to disk.
    std::int32_t sendToOrx(const Report& report);
    /// Also removes the member "catalogId" from `report`.
    std::int32_t sendToOrx(kyo::Json::Value& report);

    /// Returns the identifier of a message, a UUID in text form. The same inputs give the same identifier, so
    /// that the backend recognises a repeated report. `adjustment` distinguishes reports of one millisecond.
    std::string getUniqueMessageId(const std::string& catalogId, const std::string& createDatetime,
                                   const std::string& adjustment = {});

    /// Requests the collector configuration from the backend. The configuration receiver gets the answer.
    void generateNewConfigRequest();

    /// Returns true before the first master-control message, and while the last one closed the channel or
    /// reported a failed delivery.
    bool isBlocked() const;
    /// Returns true while the backend permits at least one data type.
    bool isAnythingPermitted() const;
    /// Returns true when the channel is open and something is permitted, both by the same message.
    bool isOpen() const;

  private:
    enum SendState : std::int32_t { NothingSent = 0, Sent = 1, Failed = 2 };

    void actOnOpenChannel();
    void actOnClosedChannel(std::int32_t result);
    /// Sets the report that awaits a result. m_sendMutex must be locked.
    void noteSent(const std::string& messageId);
    void deliver(orxStatus status);

    // Set once, before the client is started.
    const std::string m_serverName;
    const std::vector<std::string> m_offeredDataTypes;
    DataDeliveryCallback m_dataDeliveryCallback;
    const std::shared_ptr<ConfigurationReceiver> m_configurations;

    mutable kyo::Mutex m_controlMutex;
    std::string m_eventTicket;                      ///< guarded by m_controlMutex
    std::vector<std::string> m_permittedDataTypes;  ///< guarded by m_controlMutex
    std::int32_t m_backendChannelControl =
        3;                                  ///< guarded by m_controlMutex; closed until the backend opens it
    std::int32_t m_dataDeliveryResult = 0;  ///< guarded by m_controlMutex

    bool m_configurationRequested = false;  ///< client's thread only

    /// Locked from passing an envelope to the client until its outcome is stored, so that a master-control
    /// message which answers the envelope meets the new state.
    kyo::Mutex m_sendMutex;
    std::int32_t m_sendState = NothingSent;  ///< guarded by m_sendMutex
    std::string m_lastMessageId;             ///< guarded by m_sendMutex; of the last report that was sent
    bool m_resultAwaited = false;  ///< guarded by m_sendMutex; no result 0 was counted for that report
    std::chrono::steady_clock::time_point m_sentAt;  ///< guarded by m_sendMutex; when it was sent first

    std::unique_ptr<kyo::OrxClient> m_client;  ///< last: its thread uses all of the above
};

}  // namespace vlmProd
