#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "collect/CollectorOnEventType.h"
#include "json/FieldReader.h"
#include "kyo/Json.h"

namespace vlmProd {

/// Outcome of the parser's operations; the numbers are fixed, the missing ones are reserved.
enum class ConfigErrorCode : std::int32_t {
    Ok = 0,
    EmptyInput = 1,            ///< no document, no path, or a file that cannot be opened
    InvalidConfiguration = 2,  ///< not JSON, or refused by the validation
    ConfigBlockMissing = 6,
    ServiceNotFound = 7,
    ResourceNotFound = 8,
    ReportBlockMissing = 11,
    CollectorNotFound = 12,
    BlockOrFieldMissing = 14,
    OnEventTypeNotFound = 15,
};

/// One collector configuration: a JSON object with the arrays "CONFIG", "CLOCK", "REPORT", "COLLECT" and
/// "COMPARE" (docs/configuration.md). Parses and validates it, and returns its content.
///
/// One parse per object: a new configuration gets a new parser. Bad content throws nothing; the parse refuses
/// a member of the wrong type and names its place ("COLLECT[2].index"). Not for concurrent use: the lookups
/// remember their last result.
class ConfigParser {
  public:
    /// One element of "COLLECT"; an absent member is empty or 0.
    struct Collect {
        std::string name;
        std::string serv;
        std::string res;
        std::string on;
        std::string indexText;  ///< as in the document
        std::int32_t index = 0;
        std::optional<std::int64_t> history;  ///< ms
    };

    ConfigParser();

    /// Returns true when the document is accepted; the getters may then be used. On false, `code` is the
    /// reason, the object keeps the refused document and all fields stay empty.
    bool parseFromLocalFile(std::string& path, ConfigErrorCode& code);
    bool parseFromJson(kyo::Json::Value& json, ConfigErrorCode& code);

    /// Parts of the validation of the document. They set different codes on a failure.
    bool ValidateCollectBlock(ConfigErrorCode& code);
    bool ValidateClockName(ConfigErrorCode& code);
    bool ValidateReport(ConfigErrorCode& code);
    bool ValidateConfiguration(ConfigErrorCode& code);

    /// Parts of the extraction into the fields.
    void populateConfig(ConfigErrorCode& code);
    void populateClock(ConfigErrorCode& code);
    void populateReport(ConfigErrorCode& code);
    void populateCollect(ConfigErrorCode& code);
    void populateOnEventType();

    std::string getConfigName() { return m_configName; }
    std::string getConfigVersion() { return m_configVersion; }
    std::string getClockName() { return m_clockName; }
    /// Milliseconds, never below one minute.
    std::int32_t getClockDuration() { return m_clockDuration; }
    std::string getReportName() { return m_reportName; }
    std::string getApplicationName() { return m_applicationName; }

    /// Returns the "REPORT" array; null, with a code, when there is none.
    kyo::Json::Value configReportBlock(ConfigErrorCode& code);
    /// Returns the "COLLECT" array, or null.
    kyo::Json::Value getAllCollectorBlock();

    /// Adds to `out` each collector's key, "<serv>Proxy|<res>|<index>", and name. The first of two collectors
    /// with one key wins.
    void getAllCollects(std::map<std::string, std::string>& out);
    /// Adds to `out` each collector's name and history duration in milliseconds.
    void getAllCollectorNames(ConfigErrorCode& code, std::map<std::string, long long>& out);
    /// Returns the distinct service names in order of first appearance.
    std::vector<std::string> getAllConfiguredServices(ConfigErrorCode& code);
    int getCollectorObjCount(ConfigErrorCode& code);
    /// Adds to `out` the distinct indexes of a service and resource.
    void getAllIndexes(std::string serv, std::string res, std::vector<int>& out);
    /// Adds to `out` each service with its distinct resources in order of first appearance.
    void populateAllServicesAndResources(std::map<std::string, std::vector<std::string>>& out);
    /// Returns the index of the last collector of a service and resource, or -1.
    int getResourceIndexValue(std::string serv, std::string res);

    /// Lookups that remember their result, and return the remembered one for an unknown name.
    std::string getResources(std::string serv, ConfigErrorCode& code);
    std::string getServiceName(std::string collectName, ConfigErrorCode& code);
    /// Returns the index of the last collector with that resource name, whatever its service.
    int getIndexNumber(std::string collectName, std::string serv, std::string res, ConfigErrorCode& code);
    /// Returns the collector's service and resource. Unless the collector is the configuration's first one,
    /// the pair that the previous lookup remembered is before it.
    std::map<std::string, std::string> getServiceAndResource(std::string collectName, ConfigErrorCode& code);

    /// Returns `Clock`, with OnEventTypeNotFound, for a name that no clock and no compare block has.
    CollectorOnEventType getOnEventType(std::string name, ConfigErrorCode& code);

    /// The elements of "COLLECT" in document order.
    const std::vector<Collect>& collects() const { return m_collects; }

    /// Returns why the last parse refused its document: "COLLECT[2].serv is missing".
    const std::string& refusal() const { return m_refusal; }

  private:
    struct Config {
        std::string name;
        std::string version;
    };
    struct Clock {
        std::optional<std::string> name;
        std::optional<std::int32_t> duration;  ///< of the first clock alone
    };
    struct Report {
        std::string name;
        std::string application;
    };

    void read(const Field& document);
    bool accept(ConfigErrorCode& code, const std::string& signature, int levelOfSuccess);
    bool has(const char* block) const;

    kyo::Json::Value m_document;
    // The document's blocks; empty where a block is absent.
    Config m_config;
    std::vector<Clock> m_clocks;
    std::vector<Report> m_reports;
    std::vector<Collect> m_collects;
    std::vector<std::string> m_compareNames;
    std::string m_refusal;
    std::string m_configFilePath;
    std::string m_configName;
    std::string m_configVersion;
    std::string m_clockName;
    std::int32_t m_clockDuration = 0;
    std::string m_reportName;
    std::string m_applicationName;
    std::int32_t m_rememberedIndex = 0;
    std::string m_rememberedService;
    std::string m_rememberedResource;
    // One entry per collect clause, in document order.
    std::vector<std::string> m_listOfCollectorNames;
    std::vector<std::string> m_listOfServiceNames;
    std::vector<std::string> m_listOfResourceNames;
    std::map<std::string, CollectorOnEventType> m_onEventTypes;
};

}  // namespace vlmProd
