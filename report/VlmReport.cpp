#include "report/VlmReport.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "base/VlmLog.h"
#include "catalog/VlmJsonCatalog.h"
#include "kyo/DateTime.h"
#include "kyo/Status.h"

namespace vlmProd {

using kyo::Json::StaticString;
using kyo::Json::Value;

namespace {

constexpr const char* kCreateReport =
    "kyo::Json::Value vlmProd::VlmReport::createReport(kyo::Json::Value&, string)";

}  // namespace

VlmReport::VlmReport(std::string reportName)
    : m_reportName(std::move(reportName)), m_functionId(VlmJsonCatalog::getInstance()->getCatalogVersion()) {
    VLM_LOG(5, "ZEPH-46566: VLM wants to report all data only with privacy group anonymous");
    VLM_LOG(5, "ZEPH-57354: VLM report wants to set the function_id in the VLM report");
    VLM_LOG(5, "ReportName, TransactionTypeId, FunctionId: " << m_reportName << ", " << m_transactionTypeId
                                                             << ", " << m_functionId);
}

void VlmReport::setCollectorsName(std::vector<std::string> names) {
    VLM_LOG(5, "Setting Collectors Names");
    m_listOfCollectorNames = std::move(names);
    for (const auto& name : m_listOfCollectorNames) {
        VLM_LOG(5, "Collector Name inside From block: " << name);
    }
}

bool VlmReport::isCollectionPartOfReport(std::string collectorName) {
    VLM_LOG(5, "Inside isCollectionPartOfReport::CollectorName " << collectorName);
    VLM_LOG(5, "Size of m_listOfCollectorNames: " << m_listOfCollectorNames.size());
    const bool found = std::find(m_listOfCollectorNames.begin(), m_listOfCollectorNames.end(),
                                 collectorName) != m_listOfCollectorNames.end();
    if (found) {
        VLM_LOG(5, "isCollectionPartOfReport::CollectorName " << collectorName << " found");
    } else {
        VLM_LOG(5, "isCollectionPartOfReport::CollectorName " << collectorName << " not found");
    }
    return found;
}

Report VlmReport::createReport(const std::vector<SignalCollection>& collections, std::string catalogId) {
    VLM_LOG_AS(5, kCreateReport,
               "ZEPH-46511: VLM wants to create a report with following data from VLM configuration");
    VLM_LOG_AS(5, kCreateReport, "ZEPH-49289: VLM wants to create the datetime for the report");
    char createDatetime[24];
    std::snprintf(createDatetime, sizeof createDatetime, "%llu", kyo::DateTime::getCurrentTimeMs());
    Report report;
    Value& members = report.members;
    members[StaticString("functionId")] = m_functionId;
    members[StaticString("configName")] = m_configName;
    members[StaticString("configVersion")] = m_configVersion;
    members[StaticString("applicationName")] = m_applicationName;
    members[StaticString("reportName")] = m_reportName;
    members[StaticString("catalogId")] = catalogId;
    members[StaticString("sequenceNumber")] = m_sequenceNumber;
    members[StaticString("numPartitions")] = m_numPartitions;
    members[StaticString("transactionTypeId")] = m_transactionTypeId;
    members[StaticString("createDatetime")] = createDatetime;

    VLM_LOG_AS(5, kCreateReport, "Before report Filter, old Data = " << arrayText(pointersTo(collections)));
    std::vector<const SignalCollection*> gathered;
    for (const auto& collection : collections) {
        if (isCollectionPartOfReport(collection.collectName)) {
            gathered.push_back(&collection);
        } else {
            VLM_LOG_AS(
                4, kCreateReport,
                "The collector " << collection.collectName << "Is not part of report " << m_reportName);
        }
    }
    // No collections at all leave null, collections that all belong elsewhere an empty array.
    members[StaticString("signalCollections")] = Value();
    report.collections = collections.empty() ? "null" : arrayText(gathered);
    VLM_LOG_AS(5, kCreateReport, "After report Filter, new Data = " << report.collections);

    VLM_LOG_AS(5, kCreateReport,
               "ZEPH-49280 VLM increasing SequenceNumber for each sent Report: " << m_sequenceNumber);
    ++m_sequenceNumber;
    static auto& built = kyo::Status::counter("reports.built");
    built.add();
    return report;
}

}  // namespace vlmProd
