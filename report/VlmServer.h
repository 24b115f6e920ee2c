#pragma once
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

/// The application's end of the backend link: keeps what the backend's master-control messages say, puts each
/// report into the backend's envelope, and sends it. It never sends again by itself.
///
/// Submission control creates it once and it is never destroyed in the running process: the client's thread
/// calls back until the process ends.
class VlmServer {
  public:
    using DataDeliveryCallback = std::function<void(orxStatus)>;

    /// What "sendToOrx" answers when the backend permits no data type.
    static constexpr std::int32_t kNothingPermitted = -3;

    /// `configurations` gets the configurations that the backend sends.
    VlmServer(std::string serverName, std::vector<std::string> offeredDataTypes,
              std::shared_ptr<ConfigurationReceiver> configurations);
    ~VlmServer();
    VlmServer(const VlmServer&) = delete;
    VlmServer& operator=(const VlmServer&) = delete;

    /// Before startServer(). Called on the client's thread, the first time on a thread of its own.
    void registerDataDeliveryCallback(DataDeliveryCallback callback);

    /// Connects in the background.
    void startServer();

    /// One message of the backend; on the client's thread. Each replaces all that the one before said. One
    /// with a member of the wrong type is refused whole, and what was known stays.
    void handleMasterControlCallBack(kyo::Json::Value message);

    /// Sends one report, without its catalog id, in an envelope. Returns 0 when it was sent,
    /// kNothingPermitted, or the client's code. Blocks for at most the client's flush to disk.
    std::int32_t sendToOrx(const Report& report);
    /// Also takes the member "catalogId" out of `report`.
    std::int32_t sendToOrx(kyo::Json::Value& report);

    /// The identifier of a message, a UUID in text form. The same inputs give the same identifier, so that
    /// the backend knows a repeated report. Reports of one millisecond differ in `adjustment`.
    std::string getUniqueMessageId(const std::string& catalogId, const std::string& createDatetime,
                                   const std::string& adjustment = {});

    /// Asks the backend for the collector configuration. The answer goes to the configuration receiver.
    void generateNewConfigRequest();

    /// True while the last master-control message closed the channel or told of a failed delivery, and
    /// before the first one.
    bool isBlocked() const;
    /// True while the backend accepts at least one type of data.
    bool isAnythingPermitted() const;
    /// Not blocked, and something is permitted: both as one message said it.
    bool isOpen() const;

  private:
    enum SendState : std::int32_t { NothingSent = 0, Sent = 1, Failed = 2 };

    void actOnOpenChannel();
    void actOnClosedChannel(std::int32_t result);
    /// Which report awaits a result from now on. m_sendMutex must be held.
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

    /// Held from handing an envelope over until it is noted how that went: a master-control message that
    /// answers the envelope must not be judged by the state before it.
    kyo::Mutex m_sendMutex;
    std::int32_t m_sendState = NothingSent;  ///< guarded by m_sendMutex
    std::string m_lastMessageId;             ///< guarded by m_sendMutex; of the last report that was sent
    bool m_resultAwaited = false;  ///< guarded by m_sendMutex; no result 0 was counted for that report

    std::unique_ptr<kyo::OrxClient> m_client;  ///< last: its thread uses all of the above
};

}  // namespace vlmProd
