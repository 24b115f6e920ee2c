#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "report/Report.h"
#include "report/SignalCollection.h"

namespace vlmProd {

/// How closely reported data may be tied to a vehicle or a person.
enum class PrivacyGroup : std::int32_t { Anonymous = 0, Pseudonymous = 1, Personal = 2 };

/// One configured report: its identity, the collectors that it contains and its sequence number, which counts
/// from 1 and is not kept over a restart. Owned by report control; the setters are called before the report
/// is built for the first time, createReport() from one thread at a time.
class VlmReport {
  public:
    /// Uses the catalog's version as function id: create the catalog first.
    explicit VlmReport(std::string reportName);

    void setCollectorsName(std::vector<std::string> names);
    bool isCollectionPartOfReport(std::string collectorName);

    /// Builds the report from the signal collections that belong to it, and increments the sequence number.
    Report createReport(const std::vector<SignalCollection>& collections, std::string catalogId);

    std::string getReportName() const { return m_reportName; }
    void setPrivacyType(PrivacyGroup group) { m_privacyGroup = group; }
    void setApplicationName(std::string name) { m_applicationName = std::move(name); }
    void setConfigName(std::string name) { m_configName = std::move(name); }
    void setConfigVersion(std::string version) { m_configVersion = std::move(version); }

  private:
    const std::string m_reportName;
    std::string m_applicationName;
    std::string m_configName;
    std::string m_configVersion;
    std::int32_t m_sequenceNumber = 1;
    const std::int32_t m_numPartitions = 1;
    const std::string m_transactionTypeId = "TTORX-VLMOtaAnon.COORXVLMAnon";
    const std::string m_functionId;
    PrivacyGroup m_privacyGroup = PrivacyGroup::Anonymous;
    std::vector<std::string> m_listOfCollectorNames;
};

}  // namespace vlmProd
