#pragma once
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/ConcurrentQueue.h"
#include "base/Worker.h"
#include "kyo/Json.h"
#include "kyo/Mutex.h"
#include "report/Report.h"
#include "report/SignalCollection.h"
#include "report/VlmReport.h"

namespace vlmProd {

/// Puts the signal collections of a tick into reports and ships one for each configured report. Its thread,
/// woken by the first collection, waits one second so that all collectors of the tick have delivered.
///
/// The first step of the base setup starts the thread, which then runs until the process ends. All operations
/// may be called from any thread.
class VlmReportControl : public Worker {
  public:
    using Ship = std::function<void(Report)>;

    /// Created on first use. Left to the operating system: its thread waits on the condition until the
    /// process ends.
    static VlmReportControl& getInstance();

    /// A control whose reports go to data submission control's shipping queue.
    VlmReportControl();
    /// A control whose reports go to `ship`, called on the control's thread.
    explicit VlmReportControl(Ship ship);

    void run() override;

    /// Adds a report for each element of the configuration's report blocks. A report of
    /// that name stays unchanged. An element or a member of the wrong type is skipped with a message that
    /// names it.
    void initializeReportControl(kyo::Json::Value reports, std::string configName, std::string configVersion);
    void setCatalogId(std::string catalogId);
    void getCatalogId(std::string& catalogId);

    /// Queues one signal collection and wakes the thread. When the queue cannot be locked in ten
    /// tries, the collection is dropped and counted.
    void addToReport(SignalCollection collection);
    void addToReport(const kyo::Json::Value& collection) { addToReport(SignalCollection(collection)); }
    /// Builds and ships every configured report, in the order of their names.
    void processReportQueue(const std::vector<SignalCollection>& aggregated);

    void SendWakeupSignal();
    /// Ends the thread at its next check; does not wake it.
    void stopVlmReportControlThread();
    /// Stops the thread and destroys this object.
    void releaseVlmReportControl();

    /// Ships the queued collections. Returns false when the stop flag is set.
    bool drainOnce() override;
    /// 24 for each queued collection.
    unsigned int queued() { return m_collections.size(); }

  private:
    std::map<std::string, std::shared_ptr<VlmReport>> reports() const;

    const Ship m_ship;
    ConcurrentQueue<SignalCollection> m_collections;

    mutable kyo::Mutex m_configurationMutex;  ///< guards the members below
    std::map<std::string, std::shared_ptr<VlmReport>> m_reportMap;
    std::string m_catalogId;
};

}  // namespace vlmProd
