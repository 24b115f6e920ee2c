#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/ConcurrentQueue.h"
#include "base/Worker.h"
#include "kyo/Json.h"
#include "kyo/Mutex.h"
#include "report/Report.h"
#include "report/VlmServer.h"
#include "report/orxStatus.h"

namespace vlmProd {

/// The shipping stage: keeps finished reports in order and sends them one at a time, each after the backend's
/// delivery result for the one before. Reports are never put back: what cannot be sent is dropped and logged.
///
/// Its thread makes the first send of each burst, the backend link's callback thread the others. In local
/// mode there is no link and no thread, and nothing empties the queue.
class VlmDataSubmissionControl : public Worker {
  public:
    /// Created on first use and never destroyed: its thread sleeps on the condition until the process ends.
    static VlmDataSubmissionControl* getInstance();

    VlmDataSubmissionControl();

    /// Creates the backend link. Before start().
    void initializeServer(std::string serverName, std::vector<std::string> offeredDataTypes,
                          std::shared_ptr<ConfigurationReceiver> configurations);
    /// Connects the link with this object and starts it; does nothing without a link.
    void startServer();

    /// Queues a report; always true. Any thread. The queue has no limit of length.
    bool addReportToShippingQueue(Report report);
    bool addReportToShippingQueue(kyo::Json::Value& report) {
        return addReportToShippingQueue(Report(report));
    }

    /// Sends the oldest queued report, or returns to idle when there is none.
    void processReportFromQueue();
    /// Sends the last sent report again, with the same message identifier.
    void processLastReport();
    /// Handles the backend's result of the last report, on the link's thread.
    void processReportBasedOnDataDelivery(orxStatus status);

    void SendWakeupSignal();
    void stopVlmDataSubmissionControl();

    /// Returns the number of reports in the shipping queue.
    std::uint64_t waitingReports() const { return m_waiting; }

    void run() override;
    /// Sends one report unless a delivery result is awaited. Returns false when the stop flag is set.
    bool drainOnce() override;

  private:
    void becomeIdle();

    kyo::Mutex m_addMutex;  ///< one report at a time is added, so that the logged sizes belong to it
    ConcurrentQueue<Report> m_shippingQueue;  ///< weighted with the lengths of their texts
    std::uint64_t m_bytesAdded = 0;           ///< guarded by m_addMutex
    Report m_lastReport;                      ///< guarded by m_sendMutex
    std::atomic<bool> m_sendNextData{false};  ///< a report was handed to the link and its result is awaited
    std::shared_ptr<VlmServer> m_link;        ///< set once, before the thread starts

    std::atomic<std::uint64_t> m_waiting{0};
    /// Held from the decision to send until the report is stored as the last one, so that a quick result on
    /// the link's thread waits for both. Recursive: the thread locks it to decide, and again to send.
    std::recursive_mutex m_sendMutex;
};

}  // namespace vlmProd
