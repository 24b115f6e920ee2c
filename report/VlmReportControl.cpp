#include "report/VlmReportControl.h"

#include <unistd.h>

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "base/VlmLog.h"
#include "bus/OnEventGenerator.h"
#include "json/FieldReader.h"
#include "kyo/Histogram.h"
#include "kyo/Status.h"
#include "report/VlmDataSubmissionControl.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

constexpr unsigned int kCollectionWeight = 24;
constexpr const char* kRun = "virtual void vlmProd::VlmReportControl::run()";
constexpr const char* kAddToReport = "void vlmProd::VlmReportControl::addToReport(kyo::Json::Value)";
constexpr const char* kProcessReportQueue =
    "void vlmProd::VlmReportControl::processReportQueue(kyo::Json::Value)";

std::atomic<VlmReportControl*> reportControlSingleton{nullptr};
std::mutex reportControlSingletonGuard;

const kyo::Counter& ticks() {
    static const kyo::Counter& count = kyo::Status::counter("clock.ticks");
    return count;
}

std::atomic<std::uint64_t> ticksAtReport{0};

}  // namespace

VlmReportControl& VlmReportControl::getInstance() {
    if (auto* const instance = reportControlSingleton.load(std::memory_order_acquire)) {
        return *instance;
    }
    const std::lock_guard<std::mutex> lock(reportControlSingletonGuard);
    if (reportControlSingleton == nullptr) {
        reportControlSingleton = new VlmReportControl;
    }
    return *reportControlSingleton;
}

VlmReportControl::VlmReportControl()
    : VlmReportControl([](Report report) {
          VlmDataSubmissionControl::getInstance()->addReportToShippingQueue(std::move(report));
      }) {}

VlmReportControl::VlmReportControl(Ship ship)
    : m_ship(std::move(ship)), m_collections(&kyo::Status::counter("queue.report.dropped")) {
    kyo::Status::gauge("reports.ticksSince", [] {
        return kyo::Json::Value(static_cast<kyo::Json::UInt64>(ticks().value() - ticksAtReport.load()));
    });
}

void VlmReportControl::initializeReportControl(Value reports, std::string configName,
                                               std::string configVersion) {
    FieldReader reader("REPORT", Reading::Converting);
    for (const Field& block : reader.root(reports, "REPORT").elements("an array of objects")) {
        std::string name;
        std::string application;
        if (!block.object() || !block["name"].name(name)) {
            continue;
        }
        block["application"].name(application);
        const auto report = std::make_shared<VlmReport>(name);
        std::vector<std::string> collectors;
        for (const Field& element : block["from"].elements("an array of texts")) {
            if (std::string collector; element.name(collector)) {
                VLM_LOG(5, "Collector from 'From' block: " << collector);
                collectors.push_back(std::move(collector));
            }
        }
        report->setCollectorsName(std::move(collectors));
        report->setApplicationName(application);
        report->setConfigName(configName);
        report->setConfigVersion(configVersion);
        {
            const std::lock_guard<kyo::Mutex> lock(m_configurationMutex);
            m_reportMap.emplace(name, report);
        }
        VLM_LOG(5, "ApplicationName, ConfigName, ConfigVersion: " << application << ", " << configName << ", "
                                                                  << configVersion);
    }
    for (const std::string& fault : reader.faults()) {
        VLM_LOG(3, fault << "; it is left out");
    }
}

void VlmReportControl::setCatalogId(std::string catalogId) {
    const std::lock_guard<kyo::Mutex> lock(m_configurationMutex);
    m_catalogId = std::move(catalogId);
}

void VlmReportControl::getCatalogId(std::string& catalogId) {
    const std::lock_guard<kyo::Mutex> lock(m_configurationMutex);
    catalogId = m_catalogId;
}

std::map<std::string, std::shared_ptr<VlmReport>> VlmReportControl::reports() const {
    const std::lock_guard<kyo::Mutex> lock(m_configurationMutex);
    return m_reportMap;
}

void VlmReportControl::addToReport(SignalCollection collection) {
    VLM_LOG_AS(5, kAddToReport, "Inside VlmReportControl::addToReport\n\n\n");
    m_collections.put(std::move(collection), kCollectionWeight);
    wake();
}

void VlmReportControl::processReportQueue(const std::vector<SignalCollection>& aggregated) {
    static auto& latency = kyo::Histogram::get("latency.tickToReport");
    const auto tick = OnEventGenerator::lastTick();
    ticksAtReport = ticks().value();
    const auto configured = reports();
    VLM_LOG_AS(5, kProcessReportQueue, "Size of m_reportMap: " << configured.size());
    std::string catalogId;
    getCatalogId(catalogId);
    for (const auto& [name, report] : configured) {
        Report built = report->createReport(aggregated, catalogId);
        if (tick != OnEventGenerator::Clock::time_point()) {
            latency.add(OnEventGenerator::Clock::now() - tick);
        }
        VLM_LOG_AS(5, kProcessReportQueue, "ZEPH-49288: VLM wants to send the VLM Report to shipping buffer");
        m_ship(std::move(built));
    }
}

void VlmReportControl::SendWakeupSignal() {
    wake();
}

void VlmReportControl::stopVlmReportControlThread() {
    m_stop = true;
}

void VlmReportControl::releaseVlmReportControl() {
    m_stop = true;
    SendWakeupSignal();
    if (!waitForEnd()) {
        VLM_LOG(3, "Report control's thread does not end; the control stays");
        return;
    }
    auto* self = this;
    reportControlSingleton.compare_exchange_strong(self, nullptr);
    delete this;
}

bool VlmReportControl::drainOnce() {
    std::vector<SignalCollection> aggregated;
    SignalCollection collection;
    while (m_collections.take(&collection)) {
        VLM_LOG_AS(5, kRun, "From Report Q~");
        aggregated.push_back(std::move(collection));
    }
    VLM_LOG_AS(5, kRun, "Size of Aggregated output data = " << aggregated.size());
    for (std::size_t i = 0; i < aggregated.size() && kyo::Log::enabled(5); ++i) {
        VLM_LOG_AS(5, kRun, "AGGREGATED DATA I = " << i << "  and JSON = " << aggregated[i].text);
    }
    VLM_LOG_AS(5, kRun, "Aggreegated output data = " << arrayText(pointersTo(aggregated)));
    if (aggregated.empty()) {
        VLM_LOG_AS(4, kRun, "The Report control thread does not have any aggregated data to report.");
    } else {
        processReportQueue(aggregated);
    }
    return !m_stop;
}

void VlmReportControl::run() {
    VLM_LOG(5, "Started VlmReportControl consumer");
    detach();
    const Running running(*this);
    while (!m_stop && drainOnce()) {
        {
            const SleepLock lock = lockSleep();
            VLM_LOG(7, "Conditional wait because There is nothing to process in Report queue.");
            sleepUntilWoken();
            VLM_LOG(7, "Awaken Report Control thread to process records");
        }
        if (!m_stop) {
            // The collections of one tick arrive on separate threads; this pause makes one batch of them.
            sleep(1);
        }
    }
    VLM_LOG(5, "Exiting the ReportControl thread");
}

}  // namespace vlmProd
