#pragma once
#include <functional>
#include <utility>

#include "base/ConcurrentQueue.h"
#include "base/Worker.h"
#include "collect/Record.h"
#include "kyo/Json.h"

namespace vlmProd {

/// The single entry of all records into the collection pipeline. Middleware threads put records in; one
/// thread takes them out in order of arrival and hands each one, on a detached thread of its own, to the
/// collector that the record names. Records may therefore reach their collector in any order.
///
/// The base setup names the receiver and calls start() once; the thread runs until the process ends.
/// Producers wake it without its lock: a record that comes just as the thread goes to sleep waits for the
/// next one.
class IngressQueue : public Worker {
  public:
    using Dispatch = std::function<void(Record)>;

    /// Created on the first call. Left to the operating system: its thread waits on the condition until the
    /// process ends.
    static IngressQueue* getInstance();

    IngressQueue();

    /// Names the receiver of the records, which is called on a thread of its own for each one. Before
    /// start().
    void setDispatch(Dispatch dispatch) { m_dispatch = std::move(dispatch); }

    void run() override;

    /// Queues the record and wakes the thread; returns quickly. Called on middleware threads. A record
    /// whose queue could not be locked in ten tries is lost and counted.
    void insertRecord(Record record);
    void insertRecord(kyo::Json::Value& record) { insertRecord(Record(record)); }
    void SendWakeupSignal();
    /// Ends the thread at its next check. A record that it takes then is dropped.
    void stopIngressQueueThread();
    /// Stops the thread and destroys this object.
    void releaseIngressQueue();

    /// Dispatches the queued records. Returns false when the stop flag is set.
    bool drainOnce() override;
    /// Takes the oldest record out. False when there is none.
    bool takeRecord(Record* record);
    /// Bytes of compact JSON text waiting.
    unsigned int queuedBytes() { return m_records.size(); }

  private:
    void dispatch(Record record);

    Dispatch m_dispatch;  ///< set once, before the thread starts
    ConcurrentQueue<Record> m_records;
};

}  // namespace vlmProd
