#pragma once
#include <functional>
#include <utility>

#include "base/ConcurrentQueue.h"
#include "base/Worker.h"
#include "collect/Record.h"
#include "kyo/Json.h"

namespace vlmProd {

/// The entry of all records into the collection pipeline. Middleware threads insert records. One thread takes
/// them in order of arrival and gives each one to the receiver on a new detached thread, so records may reach
/// their collector in any order.
///
/// The base setup sets the receiver and calls start() once; the thread runs until the process ends. Producers
/// wake it without its lock: a record that arrives while the thread goes to sleep waits for the next one.
class IngressQueue : public Worker {
  public:
    using Dispatch = std::function<void(Record)>;

    /// Created on the first call and never destroyed: its thread waits on the condition until the process
    /// ends.
    static IngressQueue* getInstance();

    IngressQueue();

    /// Sets the receiver of the records, which is called on a new thread for each one. Call before start().
    void setDispatch(Dispatch dispatch) { m_dispatch = std::move(dispatch); }

    void run() override;

    /// Queues the record and wakes the thread; returns quickly. Called on middleware threads. Drops and
    /// counts the record when ten tries cannot lock the queue.
    void insertRecord(Record record);
    void insertRecord(kyo::Json::Value& record) { insertRecord(Record(record)); }
    void SendWakeupSignal();
    /// Ends the thread at its next check. A record that it takes then is dropped.
    void stopIngressQueueThread();
    /// Stops the thread and destroys this object.
    void releaseIngressQueue();

    /// Dispatches the queued records. Returns false when the stop flag is set.
    bool drainOnce() override;
    /// Removes the oldest record and moves it to `record`. Returns false when the queue is empty.
    bool takeRecord(Record* record);
    /// Returns the length of the queued texts, in bytes.
    unsigned int queuedBytes() { return m_records.size(); }

  private:
    void dispatch(Record record);

    Dispatch m_dispatch;  ///< set once, before the thread starts
    ConcurrentQueue<Record> m_records;
};

}  // namespace vlmProd
