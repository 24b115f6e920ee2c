#include "config/ConfigParser.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

#include "base/FileText.h"
#include "base/VlmLog.h"
#include "json/JsonFields.h"
#include "services/ProxyNames.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

constexpr std::int32_t kShortestClockMs = 60000;

void readCollect(const Field& element, ConfigParser::Collect& collect) {
    element["name"].name(collect.name);
    element["serv"].name(collect.serv);
    element["res"].name(collect.res);
    element["on"].name(collect.on);
    const Field index = element["index"];
    // The validation treats an empty text as an absent index and has its own message for it.
    collect.indexText = textOf(index.value());
    if (!index.value().isString() || !collect.indexText.empty()) {
        index.number(collect.index);
    }
    if (const Field history = element["history"]; !history.isAbsent()) {
        history.number(collect.history.emplace());
    }
}

bool contains(const std::vector<std::string>& list, const std::string& name) {
    return std::find(list.begin(), list.end(), name) != list.end();
}

/// Returns the elements of a block, each an object; null is read as an empty one.
std::vector<Field> objects(const Field& block) {
    auto elements = block.elements("an array of objects");
    for (const Field& element : elements) {
        element.object();
    }
    return elements;
}

}  // namespace

ConfigParser::ConfigParser() = default;

bool ConfigParser::has(const char* block) const {
    return !member(m_document, block).isNull();
}

/// Reads the members that the system uses and ignores all others.
void ConfigParser::read(const Field& document) {
    document.object();
    document["CONFIG"].elements("an array of objects");
    const Field config = document["CONFIG"][0];
    config.object();
    config["name"].name(m_config.name);
    config["version"].name(m_config.version);
    for (const Field& element : objects(document["CLOCK"])) {
        Clock& clock = m_clocks.emplace_back();
        if (const Field name = element["name"]; !name.isAbsent()) {
            name.name(clock.name.emplace());
        }
        if (const Field duration = element["duration"]; !duration.isAbsent() && m_clocks.size() == 1) {
            duration.number(clock.duration.emplace());
        }
    }
    for (const Field& element : objects(document["REPORT"])) {
        Report& report = m_reports.emplace_back();
        element["name"].name(report.name);
        element["application"].name(report.application);
        for (const Field& from : element["from"].elements("an array of texts")) {
            std::string collector;
            from.name(collector);
        }
    }
    for (const Field& element : objects(document["COLLECT"])) {
        readCollect(element, m_collects.emplace_back());
    }
    for (const Field& element : objects(document["COMPARE"])) {
        element["name"].name(m_compareNames.emplace_back());
    }
}

/// Reads, validates and extracts the document. `signature` is the calling operation's.
bool ConfigParser::accept(ConfigErrorCode& code, const std::string& signature, int levelOfSuccess) {
    FieldReader reader("collector configuration", Reading::Converting);
    read(reader.root(m_document));
    for (const std::string& fault : reader.faults()) {
        VLM_LOG_AS(3, signature, fault);
    }
    if (!reader.good()) {
        m_refusal = reader.faults().front();
    }
    if (!reader.good() || !ValidateCollectBlock(code) || !ValidateClockName(code) || !ValidateReport(code)) {
        VLM_LOG_AS(3, signature, "Invalid configuration file");
        code = ConfigErrorCode::InvalidConfiguration;
        return false;
    }
    VLM_LOG_AS(levelOfSuccess, signature, "Valid configuration file");
    populateConfig(code);
    populateClock(code);
    populateReport(code);
    populateCollect(code);
    populateOnEventType();
    return true;
}

bool ConfigParser::parseFromLocalFile(std::string& path, ConfigErrorCode& code) {
    VLM_LOG(7, "configfile=" << path);
    std::string content;
    if (path.empty() || !readWholeFile(path, content)) {
        m_refusal = "it cannot be opened";
        code = ConfigErrorCode::EmptyInput;
        return false;
    }
    kyo::Json::Reader reader;
    if (!reader.parse(content, m_document, false)) {
        // Field engineers know this text, although it is not the catalog that was parsed.
        VLM_LOG(3, "Catalog file parsing not successful, check format");
        VLM_LOG(3, path << ": " << reader.getFormattedErrorMessages());
        m_refusal = "it is not JSON";
        code = ConfigErrorCode::InvalidConfiguration;
        return false;
    }
    m_configFilePath = path;
    // On the failure's level, so that a quiet log shows either result.
    return accept(code, logSignature(__PRETTY_FUNCTION__), 3);
}

bool ConfigParser::parseFromJson(Value& json, ConfigErrorCode& code) {
    VLM_TRACE(7);
    if (json.empty()) {
        m_refusal = "it is empty";
        code = ConfigErrorCode::EmptyInput;
        return false;
    }
    m_document = json;
    return accept(code, logSignature(__PRETTY_FUNCTION__), 5);
}

// The checks set different codes; the parses replace them.
bool ConfigParser::ValidateCollectBlock(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("COLLECT")) {
        VLM_LOG(3, "Failed to get collector block from config file");
        m_refusal = "COLLECT is missing";
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    std::set<std::string> seen;
    for (std::size_t i = 0; i < m_collects.size(); ++i) {
        const Collect& collect = m_collects[i];
        m_refusal = "COLLECT[" + std::to_string(i) + "].";
        if (collect.name.empty()) {
            VLM_LOG(5, "Field 'name' not present");
            m_refusal += "name is missing";
            code = ConfigErrorCode::BlockOrFieldMissing;
            return false;
        }
        if (!seen.insert(collect.name).second) {
            VLM_LOG(5, "Invalid configuration: duplicate collector name");
            m_refusal += "name is an earlier collector's: " + collect.name;
            code = ConfigErrorCode::InvalidConfiguration;
            return false;
        }
        if (collect.serv.empty()) {
            VLM_LOG(5, "Field 'serv' is not present");
            m_refusal += "serv is missing";
            return false;
        }
        if (collect.res.empty()) {
            VLM_LOG(5, "Field 'res' is not present");
            m_refusal += "res is missing";
            return false;
        }
        if (collect.indexText.empty()) {
            VLM_LOG(5, "Field 'index' is not present");
            m_refusal += "index is missing";
            return false;
        }
        VLM_LOG(5,
                "ZEPH-46143: VLM Configuration, Collect clause mandatory arguments = name, serv, res, index: "
                    << collect.name << ", " << collect.serv << ", " << collect.res << ", "
                    << collect.indexText);
    }
    m_refusal.clear();
    return true;
}

bool ConfigParser::ValidateClockName(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("CLOCK")) {
        VLM_LOG(3, "Failed to get the clock from Json Configuration file");
        m_refusal = "CLOCK is missing";
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    if (m_clocks.size() > 1) {
        VLM_LOG(5, "Size= " << m_clocks.size() << ", only the first clock object will be considered");
    }
    VLM_LOG(5, "ZEPH-47316: VLM wants to define the name of the VLM Clock");
    if (m_clocks.empty() || !m_clocks[0].name) {
        VLM_LOG(3, "Invalid configuration: field 'Clock name' is not present");
        m_refusal = "CLOCK[0].name is missing";
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    m_clockName = *m_clocks[0].name;
    return true;
}

bool ConfigParser::ValidateReport(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("REPORT")) {
        VLM_LOG(3, "Failed to get the Report from Json Configuration file");
        m_refusal = "REPORT is missing";
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    std::set<std::string> seen;
    for (const Report& report : m_reports) {
        const std::string place = "REPORT[" + std::to_string(&report - m_reports.data()) + "].name ";
        if (report.name.empty()) {
            VLM_LOG(5, "Field 'Report name' not present");
            m_refusal = place + "is missing";
            return false;
        }
        if (!seen.insert(report.name).second) {
            VLM_LOG(5, "Invalid configuration file as report name already found");
            m_refusal = place + "is an earlier report's: " + report.name;
            code = ConfigErrorCode::InvalidConfiguration;
            return false;
        }
    }
    return true;
}

bool ConfigParser::ValidateConfiguration(ConfigErrorCode& code) {
    if (!ValidateCollectBlock(code) || !ValidateClockName(code) || !ValidateReport(code)) {
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    return true;
}

void ConfigParser::populateConfig(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("CONFIG")) {
        VLM_LOG(3, "Failed to get the configuration from Json Configuration file");
        code = ConfigErrorCode::ConfigBlockMissing;
    }
    m_configName = m_config.name;
    m_configVersion = m_config.version;
}

void ConfigParser::populateClock(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("CLOCK")) {
        VLM_LOG(3, "Failed to get the clock from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
        return;
    }
    if (m_clocks.size() > 1) {
        VLM_LOG(5, "Size= " << m_clocks.size() << ", only the first clock object will be considered");
    }
    const Clock first = m_clocks.empty() ? Clock() : m_clocks[0];
    m_clockName = first.name.value_or("");
    VLM_LOG(5, "ZEPH-42903: VLM wants to configure the duration of the VLM Clock");
    m_clockDuration = kShortestClockMs;
    if (!first.duration) {
        VLM_LOG(5, "ZEPH-43664: Field 'duration' not present, setting it to 60000");
    } else if (*first.duration < kShortestClockMs) {
        VLM_LOG(5, "ZEPH-43664: Field 'duration' is less than 1 minute so setting it to 60000");
    } else {
        m_clockDuration = *first.duration;
    }
}

void ConfigParser::populateReport(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("REPORT")) {
        VLM_LOG(3, "Failed to get the report from Json Configuration file");
        code = ConfigErrorCode::ReportBlockMissing;
    }
    const Report first = m_reports.empty() ? Report() : m_reports[0];
    m_reportName = first.name;
    m_applicationName = first.application;
}

void ConfigParser::populateCollect(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("COLLECT")) {
        VLM_LOG(3, "Failed to get the collect services from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
    }
    for (const Collect& collect : m_collects) {
        m_listOfCollectorNames.push_back(collect.name);
        m_listOfServiceNames.push_back(collect.serv);
        m_listOfResourceNames.push_back(collect.res);
    }
}

void ConfigParser::populateOnEventType() {
    if (!has("CLOCK")) {
        VLM_LOG(
            3,
            "Failed to get the clock block from Json Configuration file, can not set the OnEvent Type info.");
    }
    for (const Clock& clock : m_clocks) {
        const std::string name = clock.name.value_or("");
        if (!m_onEventTypes.emplace(name, CollectorOnEventType::Clock).second) {
            VLM_LOG(5, name << "On Event type name already exists");
        }
    }
    if (!has("COMPARE")) {
        VLM_LOG(3,
                "Failed to get the compare block from Json Configuration file, can not set the compare on "
                "event name and type");
        return;
    }
    for (const std::string& name : m_compareNames) {
        if (!m_onEventTypes.emplace(name, CollectorOnEventType::Compare).second) {
            VLM_LOG(5, "onName already exists");
        }
    }
}

Value ConfigParser::configReportBlock(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("REPORT")) {
        VLM_LOG(3, "Failed to get the report from Json Configuration file");
        code = ConfigErrorCode::ReportBlockMissing;
    }
    return member(m_document, "REPORT");
}

Value ConfigParser::getAllCollectorBlock() {
    VLM_TRACE(7);
    return member(m_document, "COLLECT");
}

void ConfigParser::getAllCollects(std::map<std::string, std::string>& out) {
    VLM_TRACE(7);
    for (const Collect& collect : m_collects) {
        if (collect.serv.empty() || collect.res.empty() || collect.name.empty()) {
            VLM_LOG(5, "service name or resource name or collect name is empty. Please check config");
            continue;
        }
        out.emplace(proxyNames::of(collect.serv) + "|" + collect.res + "|" + std::to_string(collect.index),
                    collect.name);
    }
}

void ConfigParser::getAllCollectorNames(ConfigErrorCode& code, std::map<std::string, long long>& out) {
    code = ConfigErrorCode::Ok;
    if (!has("COLLECT")) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file");
        code = ConfigErrorCode::BlockOrFieldMissing;
        return;
    }
    VLM_LOG(5, "ZEPH-46130: VLM Configuration, Collect clause optional arguments = history");
    for (const Collect& collect : m_collects) {
        VLM_LOG(5, "ZEPH-43134 VLM wants to define the VLM Collector default value for History as 0");
        if (collect.history) {
            VLM_LOG(5, "History Found for collector: " << collect.name);
        } else {
            VLM_LOG(5, "History not Found for collector: " << collect.name);
        }
        out.emplace(collect.name, collect.history.value_or(0));
    }
}

std::vector<std::string> ConfigParser::getAllConfiguredServices(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    std::vector<std::string> services;
    if (!has("COLLECT")) {
        VLM_LOG(3, "Failed to get the configured services from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
    }
    for (const Collect& collect : m_collects) {
        if (!contains(services, collect.serv)) {
            services.push_back(collect.serv);
        }
    }
    return services;
}

int ConfigParser::getCollectorObjCount(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!has("COLLECT")) {
        VLM_LOG(3, "Failed to get the collector obj count from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
    }
    return static_cast<int>(m_collects.size());
}

void ConfigParser::getAllIndexes(std::string serv, std::string res, std::vector<int>& out) {
    for (const Collect& collect : m_collects) {
        if (collect.serv != serv || collect.res != res) {
            continue;
        }
        VLM_LOG(5, "Service " << serv << "  and Resource " << res << "   match found");
        if (std::find(out.begin(), out.end(), collect.index) == out.end()) {
            out.push_back(collect.index);
        }
    }
}

void ConfigParser::populateAllServicesAndResources(std::map<std::string, std::vector<std::string>>& out) {
    for (const Collect& collect : m_collects) {
        const auto& [serv, res] = std::tie(collect.serv, collect.res);
        const auto [entry, isNew] = out.emplace(serv, std::vector<std::string>{res});
        if (isNew) {
            continue;
        }
        std::vector<std::string>& resources = entry->second;
        VLM_LOG(5, "Serivce = " << serv << " already found. Need to update resource");
        VLM_LOG(5, "Size of resource = " << resources.size() << " and now looking for resource = " << res);
        if (!contains(resources, res)) {
            VLM_LOG(5, "Resource = " << res << " not found in array. should be inserted");
            resources.push_back(res);
            VLM_LOG(5, "Size of map value = " << resources.size());
        }
    }
}

int ConfigParser::getResourceIndexValue(std::string serv, std::string res) {
    int index = -1;
    if (!has("COLLECT")) {
        VLM_LOG(3, "Failed to get the collect services from Json Configuration file");
        return index;
    }
    for (const Collect& collect : m_collects) {
        if (collect.serv == serv && collect.res == res) {
            index = collect.index;
            VLM_LOG(5, "Got the someip index val = " << index << "  for service " << serv << "  and resource "
                                                     << res);
        }
    }
    return index;
}

std::string ConfigParser::getResources(std::string serv, ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!contains(m_listOfServiceNames, serv)) {
        VLM_LOG(3, "Service name doesn't exist");
        code = ConfigErrorCode::ServiceNotFound;
        return m_rememberedResource;
    }
    for (const Collect& collect : m_collects) {
        if (collect.serv == serv) {
            m_rememberedResource = collect.res;
        }
    }
    return m_rememberedResource;
}

std::string ConfigParser::getServiceName(std::string collectName, ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!contains(m_listOfCollectorNames, collectName)) {
        VLM_LOG(3, "\nCollector name does not exist");
        code = ConfigErrorCode::CollectorNotFound;
        return m_rememberedService;
    }
    for (const Collect& collect : m_collects) {
        if (collect.name == collectName) {
            m_rememberedService = collect.serv;
        }
    }
    return m_rememberedService;
}

int ConfigParser::getIndexNumber(std::string collectName, std::string serv, std::string res,
                                 ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    if (!contains(m_listOfCollectorNames, collectName)) {
        VLM_LOG(3, "\nCollector name does not exist");
        code = ConfigErrorCode::CollectorNotFound;
        return m_rememberedIndex;
    }
    if (!contains(m_listOfServiceNames, serv)) {
        VLM_LOG(3, "\nService name does not exist");
        code = ConfigErrorCode::ServiceNotFound;
        return m_rememberedIndex;
    }
    for (const Collect& collect : m_collects) {
        if (collect.serv != serv) {
            continue;
        }
        if (!contains(m_listOfResourceNames, res)) {
            VLM_LOG(3, "\nResource name does not exist");
            code = ConfigErrorCode::ResourceNotFound;
            continue;
        }
        // By the resource's name alone: callers rely on the last one of any service.
        for (const Collect& other : m_collects) {
            if (other.res == res) {
                m_rememberedIndex = other.index;
            }
        }
    }
    return m_rememberedIndex;
}

std::map<std::string, std::string> ConfigParser::getServiceAndResource(std::string collectName,
                                                                       ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    std::map<std::string, std::string> pairs;
    if (!contains(m_listOfCollectorNames, collectName)) {
        VLM_LOG(3, "\nCollector name does not exist");
        code = ConfigErrorCode::CollectorNotFound;
        return pairs;
    }
    for (const Collect& collect : m_collects) {
        if (collect.name == collectName) {
            m_rememberedService = collect.serv;
            m_rememberedResource = collect.res;
        }
        // Also for the elements before it, which add the pair of the previous lookup.
        pairs.emplace(m_rememberedService, m_rememberedResource);
    }
    return pairs;
}

CollectorOnEventType ConfigParser::getOnEventType(std::string name, ConfigErrorCode& code) {
    if (const auto entry = m_onEventTypes.find(name); entry != m_onEventTypes.end()) {
        code = ConfigErrorCode::Ok;
        return entry->second;
    }
    VLM_LOG(3, "Didn't find the onEvent type for " << name);
    code = ConfigErrorCode::OnEventTypeNotFound;
    return CollectorOnEventType::Clock;
}

}  // namespace vlmProd
