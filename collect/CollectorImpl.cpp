#include "collect/CollectorImpl.h"

#include <algorithm>
#include <mutex>
#include <string_view>
#include <utility>

#include "base/VlmLog.h"
#include "collect/CollectionWriter.h"
#include "kyo/DateTime.h"
#include "kyo/Status.h"
#include "report/VlmReportControl.h"

namespace vlmProd {

using kyo::Json::StaticString;
using kyo::Json::Value;

namespace {

constexpr unsigned int kRecordWeight = 24;
constexpr const char* kMoveToReport = "void vlmProd::CollectorImpl::moveRecordFromOutputqToReportBuffer()";
constexpr const char* kInsertRecord = "virtual void vlmProd::CollectorImpl::insertRecord(kyo::Json::Value&)";

/// Records in the queues of all collectors.
std::atomic<std::int64_t>& recordsWaiting() {
    static auto* const waiting = [] {
        auto* const count = new std::atomic<std::int64_t>{0};
        kyo::Status::gauge("records.waiting", [count] {
            return Value(static_cast<kyo::Json::Int64>(std::max<std::int64_t>(count->load(), 0)));
        });
        return count;
    }();
    return *waiting;
}

void left(kyo::Counter& reason) {
    recordsWaiting().fetch_sub(1, std::memory_order_relaxed);
    reason.add();
}

}  // namespace

CollectorImpl::CollectorImpl(std::string name, long long historyDuration, std::string serviceName,
                             std::string resourceName, int index, std::string onEventName,
                             CollectorOnEventType type)
    : m_name(std::move(name)),
      m_input(&kyo::Status::counter("queue.collector.input.dropped")),
      m_output(&kyo::Status::counter("queue.collector.output.dropped")),
      m_history(historyDuration),
      m_serviceName(std::move(serviceName)),
      m_resourceName(std::move(resourceName)),
      m_index(index),
      m_onEventName(std::move(onEventName)),
      m_onEventType(type) {
    VLM_LOG(5, "historyDuration: " << m_history.load() << " , Lag:  " << m_lag << " , Collector name: "
                                   << m_name << " And OnEvent Type: " << m_onEventType);
}

CollectorImpl::~CollectorImpl() {
    const auto records = (m_input.size() + m_output.size()) / kRecordWeight;
    recordsWaiting().fetch_sub(records, std::memory_order_relaxed);
}

void CollectorImpl::onOnEventCallback(Message /*message*/) {
    m_lastOnEvent = static_cast<std::int64_t>(kyo::DateTime::getCurrentTimeMs());
    VLM_LOG(5, "ZEPH-47666: Collector " << m_name << ": Last on event timestamp: " << m_lastOnEvent.load());
    moveToReportState();
    VLM_LOG(5, "ZEPH-43176: Collector " << m_name << ": moveRecordFromOutputqToReportBuffer");
    moveRecordFromOutputqToReportBuffer();
    moveToHistoryState();
}

void CollectorImpl::insertRecord(Value& record) {
    insertRecord(TextedRecord(record));
}

void CollectorImpl::insertRecord(TextedRecord record) {
    VLM_LOG_AS(5, kInsertRecord, "Adding new record to InputQ for the Collector: " << m_name);
    std::string text;  // the queue takes the record's own
    const bool told = kyo::Log::enabled(5);
    if (told) {
        text = record.text;
    }
    // One insertion at a time: in the History state every record passes at once. Two that met in the input
    // queue would be held against each other's time stamps, and the older one trimmed.
    const std::lock_guard<kyo::Mutex> inserting(m_insertMutex);
    if (m_input.put(std::move(record), kRecordWeight)) {
        recordsWaiting().fetch_add(1, std::memory_order_relaxed);
    }
    if (told) {
        VLM_LOG_AS(5, kInsertRecord,
                   "Record inserted to Input queue for the Collector " << m_name << " recordJson: " << text);
    }
    moveRecFromInputqToOutputq();
}

void CollectorImpl::moveToReportState() {
    setState(ICollector::Reportable);
    VLM_LOG(5, "ZEPH-44489: ZEPH-64275: Collector: " << m_name << ": In the Reportable state");
}

void CollectorImpl::moveToLagState() {
    setState(ICollector::Lag);
    VLM_LOG(5, "ZEPH-44489: Collector: " << m_name << ": In the Lag state");
}

void CollectorImpl::moveToHistoryState() {
    setState(ICollector::History);
    VLM_LOG(5, "ZEPH-44489: ZEPH-64275: Collector: " << m_name << ": In the History state");
    bool valid = false;
    {
        // Trimming removes records too: never beside another thread that trims or moves.
        const std::lock_guard<kyo::Mutex> lock(m_mutex);
        valid = validateRecord();
    }
    if (valid) {
        VLM_LOG(5, "Valid record(s): moving record from input queue to output queue");
        moveRecFromInputqToOutputq();
    }
}

bool CollectorImpl::validateRecord() {
    static auto& expired = kyo::Status::counter("records.expired");
    if (m_state != ICollector::History) {
        VLM_LOG(5, "Collector: " << m_name << " not in History state");
        return false;
    }
    const unsigned int total = m_input.size();
    if (total == 0) {
        return false;
    }
    if (total == 1) {
        return true;
    }
    for (;;) {
        std::int64_t front = 0;
        std::int64_t back = 0;
        if (!m_input.withFront([&front](const TextedRecord& record) { front = record.timestamp; })) {
            return false;
        }
        m_input.withBack([&back](const TextedRecord& record) { back = record.timestamp; });
        // Time stamps are whatever a record says: the difference must not overflow.
        const auto difference =
            static_cast<std::int64_t>(static_cast<std::uint64_t>(front) - static_cast<std::uint64_t>(back));
        const long long history = m_history;
        VLM_LOG(5, "Front record Timestamp for the Collector: " << m_name << front);
        VLM_LOG(5, "Back record Timestamp for the Collector: " << m_name << back);
        VLM_LOG(5, "Difference of frontRecord and backRecord timestamp for the Collector: " << m_name
                                                                                            << difference);
        VLM_LOG(5, "History duration for the Collector: " << m_name << history);
        if (static_cast<std::int64_t>(static_cast<std::uint64_t>(back) - static_cast<std::uint64_t>(front)) <=
            history) {
            VLM_LOG(5, "Difference is less than history.");
            VLM_LOG(5, "Queue remains unchanged for the Collector: " << m_name);
            return true;
        }
        VLM_LOG(5, "Difference is greater than history.");
        VLM_LOG(5, "Removed expired record for the Collector: " << m_name);
        TextedRecord discarded;
        if (m_input.take(&discarded)) {
            left(expired);
        }
    }
}

void CollectorImpl::moveRecFromInputqToOutputq() {
    static auto& collected = kyo::Status::counter("records.collected");
    VLM_LOG(5, "ZEPH 47697: Collector: " << m_name << ": Moving the Record from input queue to output queue");
    const std::lock_guard<kyo::Mutex> lock(m_mutex);
    if (!validateRecord()) {
        return;
    }
    while (m_input.size() != 0) {
        if (m_history == 0) {
            VLM_LOG(5, "History duration is 0 for the Collector: " << m_name << ", clearing older records");
            clearOutputQueue();
        }
        VLM_LOG(
            5,
            "ZEPH-44035: Collector: "
                << m_name
                << " VLM ensures that no new entry are going to be missed during the restart the new event");
        TextedRecord record;
        if (!m_input.take(&record)) {
            return;
        }
        VLM_LOG(5,
                "Taking data from input queue for the Collector: " << m_name << " jsonCopy: " << record.text);
        std::string text;
        const bool told = kyo::Log::enabled(5);
        if (told) {
            text = record.text;
        }
        if (m_output.put(std::move(record.text), kRecordWeight)) {
            collected.add();
        } else {
            recordsWaiting().fetch_sub(1, std::memory_order_relaxed);
        }
        if (told) {
            VLM_LOG(5, "Moved data from input queue to output queue for the Collector: "
                           << m_name << " jsonCopy: " << text);
        }
    }
}

void CollectorImpl::clearOutputQueue() {
    static auto& replaced = kyo::Status::counter("records.replaced");
    std::string record;
    while (m_output.take(&record)) {
        VLM_LOG(5, "Removing data from output queue, jsonCopy:" << record);
        left(replaced);
    }
}

void CollectorImpl::moveRecordFromOutputqToReportBuffer() {
    VlmReportControl::getInstance().addToReport(buildCollection());
}

SignalCollection CollectorImpl::emptyCollection() const {
    Value collection(kyo::Json::objectValue);
    collection[StaticString("collectName")] = m_name;
    collection[StaticString("serviceName")] = m_serviceName;
    collection[StaticString("resourceName")] = m_resourceName;
    collection[StaticString("historyLength")] = 0;
    collection[StaticString("lagLength")] = 0;
    collection[StaticString("index")] = m_index;
    collection[StaticString("endOfHistory")] = static_cast<kyo::Json::Int64>(m_lastOnEvent.load());
    collection[StaticString("causeOfSubmit")] = 0;
    collection[StaticString("samples")] = Value();
    return SignalCollection(collection);
}

SignalCollection CollectorImpl::buildCollection() {
    if (m_output.size() == 0) {
        VLM_LOG_AS(5, kMoveToReport, "Output queue of Collector " << m_name << " is empty");
        return emptyCollection();
    }
    CollectionWriter writer;
    std::string record;
    while (m_output.take(&record)) {
        recordsWaiting().fetch_sub(1, std::memory_order_relaxed);
        VLM_LOG_AS(
            5, kMoveToReport,
            "moveRecordFromOutputqToReportBuffer for the Collector: " << m_name << " jsonCopy " << record);
        const std::string_view sample = writer.add(record);
        VLM_LOG_AS(5, kMoveToReport, "Sample: " << sample);
        VLM_LOG_AS(
            5, kMoveToReport,
            "ZEPH-43126: Collector: " << m_name << " collects the last sample data and it´s timestamp");
    }
    SignalCollection collection = writer.finish();
    VLM_LOG_AS(5, kMoveToReport,
               "ZEPH-64284: Collector: " << m_name << " creating the end_of_history for the report");
    VLM_LOG_AS(5, kMoveToReport,
               "ZEPH-49277: Collector: "
                   << m_name << " creates a report with signalCollections data from VLM collectors");
    VLM_LOG_AS(5, kMoveToReport, "signalCollections data: " << collection.text);
    return collection;
}

}  // namespace vlmProd
