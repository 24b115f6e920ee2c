#include "report/VlmReport.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "app/JsonFields.h"
#include "app/VlmLog.h"
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

std::string collectionName(const Value& collection) {
    return textOf(member(collection, "collectName"));
}

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

bool VlmReport::gathers(const std::string& collectorName) const {
    return std::find(m_listOfCollectorNames.begin(), m_listOfCollectorNames.end(), collectorName) !=
           m_listOfCollectorNames.end();
}

bool VlmReport::isCollectionPartOfReport(std::string collectorName) {
    VLM_LOG(5, "Inside isCollectionPartOfReport::CollectorName " << collectorName);
    VLM_LOG(5, "Size of m_listOfCollectorNames: " << m_listOfCollectorNames.size());
    const bool found = gathers(collectorName);
    if (found) {
        VLM_LOG(5, "isCollectionPartOfReport::CollectorName " << collectorName << " found");
    } else {
        VLM_LOG(5, "isCollectionPartOfReport::CollectorName " << collectorName << " not found");
    }
    return found;
}

Value VlmReport::createReport(Value& collections, std::string catalogId) {
    std::vector<std::string> names;
    if (collections.isArray()) {
        for (const auto& collection : collections) {
            names.push_back(collectionName(collection));
        }
    }
    return createReport(collections, names, std::vector<bool>(names.size(), false), catalogId);
}

Value VlmReport::createReport(Value& collections, const std::vector<std::string>& names,
                              const std::vector<bool>& lastUse, const std::string& catalogId) {
    VLM_LOG_AS(5, kCreateReport,
               "ZEPH-46511: VLM wants to create a report with following data from VLM configuration");
    VLM_LOG_AS(5, kCreateReport, "ZEPH-49289: VLM wants to create the datetime for the report");
    char createDatetime[24];
    std::snprintf(createDatetime, sizeof createDatetime, "%llu", kyo::DateTime::getCurrentTimeMs());
    Value report(kyo::Json::objectValue);
    report[StaticString("functionId")] = m_functionId;
    report[StaticString("configName")] = m_configName;
    report[StaticString("configVersion")] = m_configVersion;
    report[StaticString("applicationName")] = m_applicationName;
    report[StaticString("reportName")] = m_reportName;
    report[StaticString("catalogId")] = catalogId;
    report[StaticString("sequenceNumber")] = m_sequenceNumber;
    report[StaticString("numPartitions")] = m_numPartitions;
    report[StaticString("transactionTypeId")] = m_transactionTypeId;
    report[StaticString("createDatetime")] = createDatetime;

    VLM_LOG_AS(5, kCreateReport, "Before report Filter, old Data = " << collections);
    // No collections at all leave null, collections that all belong elsewhere an empty array.
    Value gathered(names.empty() ? kyo::Json::nullValue : kyo::Json::arrayValue);
    for (kyo::Json::ArrayIndex i = 0; i < names.size(); ++i) {
        if (!isCollectionPartOfReport(names[i])) {
            VLM_LOG_AS(4, kCreateReport,
                       "The collector " << names[i] << "Is not part of report " << m_reportName);
        } else if (lastUse[i]) {
            gathered.append(std::move(collections[i]));
        } else {
            gathered.append(collections[i]);
        }
    }
    VLM_LOG_AS(5, kCreateReport, "After report Filter, new Data = " << gathered);
    report[StaticString("signalCollections")] = std::move(gathered);

    VLM_LOG_AS(5, kCreateReport,
               "ZEPH-49280 VLM increasing SequenceNumber for each sent Report: " << m_sequenceNumber);
    ++m_sequenceNumber;
    static auto& built = kyo::Status::counter("reports.built");
    built.add();
    return report;
}

}  // namespace vlmProd
