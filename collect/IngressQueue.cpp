#include "collect/IngressQueue.h"

#include <atomic>
#include <mutex>
#include <system_error>
#include <utility>

#include "base/DetachedThread.h"
#include "base/VlmLog.h"
#include "kyo/Status.h"

namespace vlmProd {

namespace {

std::atomic<IngressQueue*> ingressSingleton{nullptr};
std::mutex ingressSingletonGuard;

constexpr const char* kRun = "virtual void vlmProd::IngressQueue::run()";
constexpr const char* kInsertRecord = "void vlmProd::IngressQueue::insertRecord(kyo::Json::Value&)";

}  // namespace

IngressQueue* IngressQueue::getInstance() {
    if (auto* const instance = ingressSingleton.load(std::memory_order_acquire)) {
        return instance;
    }
    const std::lock_guard<std::mutex> lock(ingressSingletonGuard);
    if (ingressSingleton == nullptr) {
        ingressSingleton = new IngressQueue;
        kyo::Status::gauge("queue.ingress.bytes", [] {
            auto* const instance = ingressSingleton.load();
            return kyo::Json::Value(instance != nullptr ? instance->queuedBytes() : 0U);
        });
    }
    return ingressSingleton;
}

IngressQueue::IngressQueue() : m_records(&kyo::Status::counter("queue.ingress.dropped")) {}

void IngressQueue::insertRecord(Record record) {
    if (kyo::Log::enabled(7)) {
        kyo::Log().get(7) << kInsertRecord << ':' << __LINE__;
    }
    const auto length = static_cast<unsigned int>(record.text.size());
    VLM_LOG_AS(5, kInsertRecord, "record len~" << length);
    VLM_LOG_AS(5, kInsertRecord, "Record Json = " << record.text);
    VLM_LOG_AS(5, kInsertRecord, "collectorname :: insertrecord" << record.collectorName);
    static auto& converted = kyo::Status::counter("samples.converted");
    if (m_records.put(std::move(record), length)) {
        converted.add();
    }
    broadcast();
}

void IngressQueue::SendWakeupSignal() {
    const SleepLock lock = lockSleep();
    VLM_LOG(5, "Waking up Ingress queue thread to process the record");
    broadcast();
}

void IngressQueue::stopIngressQueueThread() {
    m_stop = true;
    SendWakeupSignal();
}

void IngressQueue::releaseIngressQueue() {
    stopIngressQueueThread();
    if (!waitForEnd()) {
        VLM_LOG(3, "The ingress queue's thread does not end; the queue stays");
        return;
    }
    auto* self = this;
    ingressSingleton.compare_exchange_strong(self, nullptr);
    delete this;
}

void IngressQueue::run() {
    VLM_LOG(5, "Started IngressQueue consumer");
    detach();
    const Running running(*this);
    while (!m_stop && drainOnce()) {
        const SleepLock lock = lockSleep();
        VLM_LOG(7, "Conditional wait because There is nothing to process in Ingress queue.");
        sleepUntilWoken();
        VLM_LOG(7, "Awaken Inress queue thread to process records");
    }
}

bool IngressQueue::takeRecord(Record* record) {
    return m_records.take(record);
}

bool IngressQueue::drainOnce() {
    Record record;
    while (takeRecord(&record)) {
        if (m_stop) {
            return false;
        }
        VLM_LOG_AS(5, kRun, "From ingress Q~");
        dispatch(std::move(record));
    }
    return !m_stop;
}

void IngressQueue::dispatch(Record record) {
    static auto& dispatched = kyo::Status::counter("records.dispatched");
    static auto& failed = kyo::Status::counter("threads.failed");
    // The function is copied: the thread may outlive this object.
    try {
        startDetached([target = m_dispatch, mine = std::move(record)]() mutable { target(std::move(mine)); });
        dispatched.add();
    } catch (const std::system_error& error) {
        failed.add();
        VLM_LOG(3, "No thread for the dispatch of a record, the record is lost: " << error.what());
    }
}

}  // namespace vlmProd
