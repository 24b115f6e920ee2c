#include "collect/CollectorImpl.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <mutex>
#include <string_view>
#include <utility>

#include "base/CompactJson.h"
#include "base/VlmLog.h"
#include "json/JsonFields.h"
#include "kyo/DateTime.h"
#include "kyo/Histogram.h"
#include "kyo/Status.h"
#include "report/VlmReportControl.h"

namespace vlmProd {

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

Value valueOf(const std::string& json) {
    Value value;
    kyo::Json::Reader().parse(json, value);
    return value;
}

bool isInteger(std::string_view json) {
    const std::string_view digits = json.substr(json.starts_with('-') ? 1 : 0);
    return !digits.empty() &&
           std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// Returns a value's text as that of a JSON string; the empty string's for a value that is none. Strings and
/// integers, which nearly all are, are not parsed: that would cost more than the rest of a tick.
std::string asString(const std::string& json) {
    if (json.starts_with('"')) {
        return json;
    }
    return isInteger(json) ? '"' + json + '"' : compactText(textOf(json.empty() ? Value() : valueOf(json)));
}

/// Returns a value's text as that of an integer; "0" for a value that is none.
std::string asInt(const std::string& json) {
    int number = 0;
    if (!isInteger(json) ||
        std::from_chars(json.data(), json.data() + json.size(), number).ec != std::errc()) {
        toInt(json.empty() ? Value() : valueOf(json), number);
    }
    return std::to_string(number);
}

/// Returns the text of a signal collection. All arguments but `historyLength` are texts of values.
std::string collectionText(std::string_view collectName, std::string_view serviceName,
                           std::string_view resourceName, unsigned int historyLength, std::string_view index,
                           std::string_view endOfHistory, std::string_view samples) {
    std::string text;
    text.reserve(256 + collectName.size() + serviceName.size() + resourceName.size() + samples.size());
    ObjectWriter collection(text);
    collection.value("causeOfSubmit").append("0");
    collection.value("collectName").append(collectName);
    collection.value("endOfHistory").append(endOfHistory);
    collection.value("historyLength").append(std::to_string(historyLength));
    collection.value("index").append(index);
    collection.value("lagLength").append("0");
    collection.value("resourceName").append(resourceName);
    collection.value("samples").append(samples);
    collection.value("serviceName").append(serviceName);
    collection.end();
    return text;
}

/// The samples of a signal collection, oldest first. The members that describe a record are removed from its
/// sample; a record without one of them keeps the value of the record before it. The collection has the
/// values of the last record.
class Samples {
  public:
    /// Appends the record's sample. Returns the sample's text, valid until the next call.
    std::string_view add(std::string_view record) {
        if (m_count++ != 0) {
            m_text.push_back(',');
        }
        const std::size_t begin = m_text.size();
        ObjectWriter sample(m_text);
        ObjectWriter pairs(sample.value("propertyValuePairs"));
        for (ObjectReader members(record); members.next();) {
            const auto* const known = std::find(std::begin(kKnown), std::end(kKnown), members.name());
            if (known == std::end(kKnown)) {
                pairs.member(members.member());
            } else {
                m_last[static_cast<std::size_t>(known - std::begin(kKnown))] = members.value();
            }
        }
        pairs.end();
        sample.value("timestamp").append(asString(m_last[Timestamp]));
        sample.end();
        return std::string_view(m_text).substr(begin);
    }

    /// Returns the collection of all added samples. `collector` is the name that their records have: a name's
    /// bytes cannot be read back from a text.
    SignalCollection finish(const std::string& collector) {
        m_text.push_back(']');
        const std::string name = asString(m_last[CollectorName]);
        return {name == compactText(collector) ? collector : textOf(valueOf(name)),
                collectionText(name, asString(m_last[ServiceName]), asString(m_last[ResName]), m_count,
                               asInt(m_last[Index]), asString(m_last[Timestamp]), m_text)};
    }

  private:
    enum Known { CollectorName, ServiceName, ResName, Index, Timestamp, Count };
    static constexpr std::string_view kKnown[Count] = {"collectorName", "serviceName", "resName", "index",
                                                       "timestamp"};

    std::array<std::string, Count> m_last;  ///< texts of the last values; empty: none yet
    std::string m_text = "[";
    unsigned int m_count = 0;
};

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

void CollectorImpl::insertRecord(Record record) {
    VLM_LOG_AS(5, kInsertRecord, "Adding new record to InputQ for the Collector: " << m_name);
    std::string text;  // the queue takes the record's own
    const bool traced = kyo::Log::enabled(5);
    if (traced) {
        text = record.text;
    }
    // Serialised: in the state History every record moves at once, while concurrent inserts would trim each
    // other by their time stamps.
    const std::lock_guard<kyo::Mutex> inserting(m_insertMutex);
    if (m_input.put(std::move(record), kRecordWeight)) {
        recordsWaiting().fetch_add(1, std::memory_order_relaxed);
    }
    if (traced) {
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
        // Trimming removes records: never concurrently with another thread that trims or moves.
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
        if (!m_input.withFront([&front](const Record& record) { front = record.timestamp; })) {
            return false;
        }
        m_input.withBack([&back](const Record& record) { back = record.timestamp; });
        // Time stamps are untrusted: the difference must not overflow.
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
        Record discarded;
        if (m_input.take(&discarded)) {
            left(expired);
        }
    }
}

void CollectorImpl::moveRecFromInputqToOutputq() {
    static auto& collected = kyo::Status::counter("records.collected");
    static auto& latency = kyo::Histogram::get("latency.eventToOutput");
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
        Record record;
        if (!m_input.take(&record)) {
            return;
        }
        VLM_LOG(5,
                "Taking data from input queue for the Collector: " << m_name << " jsonCopy: " << record.text);
        std::string text;
        const bool traced = kyo::Log::enabled(5);
        if (traced) {
            text = record.text;
        }
        if (m_output.put(std::move(record.text), kRecordWeight)) {
            collected.add();
            if (record.begin != std::chrono::steady_clock::time_point()) {
                latency.add(std::chrono::steady_clock::now() - record.begin);
            }
        } else {
            recordsWaiting().fetch_sub(1, std::memory_order_relaxed);
        }
        if (traced) {
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

SignalCollection CollectorImpl::buildCollection() {
    if (m_output.size() == 0) {
        VLM_LOG_AS(5, kMoveToReport, "Output queue of Collector " << m_name << " is empty");
        return {m_name,
                collectionText(compactText(m_name), compactText(m_serviceName), compactText(m_resourceName),
                               0, std::to_string(m_index), std::to_string(m_lastOnEvent), "null")};
    }
    Samples samples;
    std::string record;
    while (m_output.take(&record)) {
        recordsWaiting().fetch_sub(1, std::memory_order_relaxed);
        VLM_LOG_AS(
            5, kMoveToReport,
            "moveRecordFromOutputqToReportBuffer for the Collector: " << m_name << " jsonCopy " << record);
        const std::string_view sample = samples.add(record);
        VLM_LOG_AS(5, kMoveToReport, "Sample: " << sample);
        VLM_LOG_AS(
            5, kMoveToReport,
            "ZEPH-43126: Collector: " << m_name << " collects the last sample data and it´s timestamp");
    }
    SignalCollection collection = samples.finish(m_name);
    VLM_LOG_AS(5, kMoveToReport,
               "ZEPH-64284: Collector: " << m_name << " creating the end_of_history for the report");
    VLM_LOG_AS(5, kMoveToReport,
               "ZEPH-49277: Collector: "
                   << m_name << " creates a report with signalCollections data from VLM collectors");
    VLM_LOG_AS(5, kMoveToReport, "signalCollections data: " << collection.text);
    return collection;
}

}  // namespace vlmProd
