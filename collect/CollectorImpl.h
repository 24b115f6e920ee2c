#pragma once
#include <atomic>
#include <cstdint>
#include <string>

#include "base/ConcurrentQueue.h"
#include "collect/CollectorOnEventType.h"
#include "collect/ICollector.h"
#include "collect/Record.h"
#include "kyo/Mutex.h"
#include "kyo/ThreadCondition.h"
#include "report/SignalCollection.h"

namespace vlmProd {

/// The state machine of one collector. Every record arrives in the input queue. In the state History it moves
/// to the output queue at once; the next tick turns that queue into a signal collection. The input queue is
/// trimmed to the history duration: the time between the stamps of its first and its last record, in order of
/// arrival.
///
/// Any thread may call the operations. One thread at a time moves and trims records, with the collector's
/// mutex. A tick drains the output queue concurrently.
class CollectorImpl : public ICollector {
  public:
    CollectorImpl(std::string name, long long historyDuration, std::string serviceName,
                  std::string resourceName, int index, std::string onEventName, CollectorOnEventType type);
    ~CollectorImpl() override;
    CollectorImpl(const CollectorImpl&) = delete;
    CollectorImpl& operator=(const CollectorImpl&) = delete;

    void onOnEventCallback(Message message) override;
    void insertRecord(kyo::Json::Value& record) override { insertRecord(Record(record)); }
    void insertRecord(Record record);
    void setHistoryDuration(long long duration) override { m_history = duration; }

    void setState(ICollector::State state) { m_state = state; }
    ICollector::State getState() const { return m_state; }
    void moveToReportState();
    void moveToLagState();
    void moveToHistoryState();

    /// Moves what the state and the history allow from the input to the output queue.
    void moveRecFromInputqToOutputq();
    /// Drains the output queue into a signal collection and gives it to report control.
    void moveRecordFromOutputqToReportBuffer();
    /// Drains the output queue into a signal collection.
    SignalCollection buildCollection();
    void clearOutputQueue();

    const std::string& getName() const { return m_name; }
    /// 24 for each waiting record.
    unsigned int inputWeight() { return m_input.size(); }
    unsigned int outputWeight() { return m_output.size(); }

  private:
    /// Trims the input queue. Returns true when its records may move. The caller holds m_mutex.
    bool validateRecord();

    std::atomic<ICollector::State> m_state{ICollector::History};
    const std::string m_name;
    ConcurrentQueue<Record> m_input;
    ConcurrentQueue<std::string> m_output;  ///< texts of records
    kyo::Mutex m_insertMutex;               ///< held from put to move; locked before m_mutex
    kyo::Mutex m_mutex;                     ///< held while records are trimmed or moved
    kyo::ThreadCondition m_condition;       ///< nothing waits on it
    const std::int64_t m_lag = 0;
    std::atomic<long long> m_history;  ///< ms
    const std::string m_serviceName;
    const std::string m_resourceName;
    const int m_index;
    const std::string m_onEventName;
    const CollectorOnEventType m_onEventType;
    std::atomic<std::int64_t> m_lastOnEvent{0};  ///< wall clock, ms; 0 before the first tick
};

}  // namespace vlmProd
