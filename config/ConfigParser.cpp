#include "config/ConfigParser.h"

#include <algorithm>
#include <set>

#include "base/FileText.h"
#include "base/JsonFields.h"
#include "base/VlmLog.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

constexpr std::int32_t kShortestClockMs = 60000;

bool has(const Value& object, const char* key) {
    return object.isObject() && object.isMember(key);
}

std::string text(const Value& object, const char* key) {
    return textOf(member(object, key));
}

int number(const Value& object, const char* key) {
    int value = 0;
    toInt(member(object, key), value);
    return value;
}

bool contains(const std::vector<std::string>& list, const std::string& name) {
    return std::find(list.begin(), list.end(), name) != list.end();
}

/// What the fields must convert to, so that everything behind the validation may read them. What is not
/// listed is ignored, whatever it holds.
enum class FieldType { Text, Integer, Index, Integer64, ListOfTexts };

struct Field {
    const char* key;
    FieldType type;
    bool onlyInFirstElement;
};

struct Block {
    const char* name;
    bool onlyFirstElement;
    std::vector<Field> fields;
};

const std::vector<Block>& blocks() {
    static const auto* const table = new std::vector<Block>{
        {"CONFIG", true, {{"name", FieldType::Text, true}, {"version", FieldType::Text, true}}},
        {"CLOCK", false, {{"name", FieldType::Text, false}, {"duration", FieldType::Integer, true}}},
        {"REPORT",
         false,
         {{"name", FieldType::Text, false},
          {"application", FieldType::Text, false},
          {"from", FieldType::ListOfTexts, false}}},
        {"COLLECT",
         false,
         {{"name", FieldType::Text, false},
          {"serv", FieldType::Text, false},
          {"res", FieldType::Text, false},
          {"index", FieldType::Index, false},
          {"history", FieldType::Integer64, false},
          {"on", FieldType::Text, false}}},
        {"COMPARE", false, {{"name", FieldType::Text, false}}},
    };
    return *table;
}

std::string found(const Value& value) {
    std::string what = std::string(", found ") + kindOf(value);
    if (!value.isArray() && !value.isObject() && !value.isNull()) {
        constexpr std::size_t longest = 60;
        const std::string shown = compactText(value);
        what += " (" + (shown.size() > longest ? shown.substr(0, longest) + "..." : shown) + ")";
    }
    return what;
}

/// Empty when the value converts, else what was expected and what stands there.
std::string mismatch(const Value& value, FieldType type) {
    std::string asText;
    std::int64_t asInteger64 = 0;
    int asInteger = 0;
    switch (type) {
        case FieldType::Text:
            return toText(value, asText) ? "" : "a text is expected" + found(value);
        case FieldType::Index:
            // An empty text is an absent index to the validation, which has its own message for it.
            if (value.isString() && textOf(value).empty()) {
                return "";
            }
            [[fallthrough]];
        case FieldType::Integer:
            return toInt(value, asInteger)
                       ? ""
                       : "a number from -2147483648 to 2147483647 is expected" + found(value);
        case FieldType::Integer64:
            return toInt64(value, asInteger64) ? "" : "a 64-bit number is expected" + found(value);
        case FieldType::ListOfTexts:
            return value.isArray() || value.isNull() ? "" : "an array of texts is expected" + found(value);
    }
    return "";
}

}  // namespace

ConfigParser::ConfigParser() = default;

const Value& ConfigParser::block(const char* name) const {
    return member(m_document, name);
}

/// Logs every member that cannot be converted to what it is read as, with its place.
bool ConfigParser::everyFieldConverts() const {
    bool good = true;
    const auto refuse = [&good](const std::string& place, const std::string& reason) {
        VLM_LOG_AS(3, "bool vlmProd::ConfigParser::everyFieldConverts()", place << ": " << reason);
        good = false;
    };
    if (!m_document.isObject() && !m_document.isNull()) {
        refuse("collector configuration", "an object is expected" + found(m_document));
        return false;
    }
    for (const Block& description : blocks()) {
        const Value& array = block(description.name);
        if (!array.isArray()) {
            if (!array.isNull()) {
                refuse(description.name, "an array of objects is expected" + found(array));
            }
            continue;
        }
        const kyo::Json::ArrayIndex count =
            description.onlyFirstElement ? std::min(array.size(), 1u) : array.size();
        for (kyo::Json::ArrayIndex i = 0; i < count; ++i) {
            const Value& object = array[i];
            const std::string place = description.name + ("[" + std::to_string(i) + "]");
            if (!object.isObject()) {
                refuse(place, "an object is expected" + found(object));
                continue;
            }
            for (const Field& field : description.fields) {
                if (field.onlyInFirstElement && i > 0) {
                    continue;
                }
                const Value& value = member(object, field.key);
                const std::string fieldPlace = place + "." + field.key;
                if (const std::string reason = mismatch(value, field.type); !reason.empty()) {
                    refuse(fieldPlace, reason);
                } else if (field.type == FieldType::ListOfTexts) {
                    for (kyo::Json::ArrayIndex k = 0; k < value.size(); ++k) {
                        if (const std::string elementReason = mismatch(value[k], FieldType::Text);
                            !elementReason.empty()) {
                            refuse(fieldPlace + "[" + std::to_string(k) + "]", elementReason);
                        }
                    }
                }
            }
        }
    }
    return good;
}

bool ConfigParser::parseFromLocalFile(std::string& path, ConfigErrorCode& code) {
    VLM_LOG(7, " configfile=" << path);
    std::string content;
    if (path.empty() || !readWholeFile(path, content)) {
        code = ConfigErrorCode::EmptyInput;
        return false;
    }
    kyo::Json::Reader reader;
    if (!reader.parse(content, m_document, false)) {
        // The text names the catalog although this is the collector configuration; it is known so.
        VLM_LOG(3, "Catalog file parsing not successful, check format");
        VLM_LOG(3, path << ": " << reader.getFormattedErrorMessages());
        code = ConfigErrorCode::InvalidConfiguration;
        return false;
    }
    m_configFilePath = path;
    if (!everyFieldConverts() || !ValidateCollectBlock(code) || !ValidateClockName(code) ||
        !ValidateReport(code)) {
        VLM_LOG(3, "Invalid configuration file");
        code = ConfigErrorCode::InvalidConfiguration;
        return false;
    }
    // On the failure's level, so that a quiet log still tells which of the two it was.
    VLM_LOG(3, "Valid configuration file");
    populateConfig(code);
    populateClock(code);
    populateReport(code);
    populateCollect(code);
    populateOnEventType();
    return true;
}

bool ConfigParser::parseFromJson(Value& json, ConfigErrorCode& code) {
    VLM_TRACE(7);
    if (json.empty()) {
        code = ConfigErrorCode::EmptyInput;
        return false;
    }
    m_document = json;
    if (!everyFieldConverts() || !ValidateCollectBlock(code) || !ValidateClockName(code) ||
        !ValidateReport(code)) {
        VLM_LOG(3, "Invalid configuration file");
        code = ConfigErrorCode::InvalidConfiguration;
        return false;
    }
    VLM_LOG(5, "Valid configuration file");
    populateConfig(code);
    populateClock(code);
    populateReport(code);
    populateCollect(code);
    populateOnEventType();
    return true;
}

bool ConfigParser::ValidateCollectBlock(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    const Value& collect = block("COLLECT");
    if (collect.isNull()) {
        VLM_LOG(3, "Failed to get collector block from config file");
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    std::set<std::string> seen;
    for (const Value& clause : collect) {
        const std::string name = text(clause, "name");
        if (name.empty()) {
            VLM_LOG(5, "Field 'name' not present");
            code = ConfigErrorCode::BlockOrFieldMissing;
            return false;
        }
        if (!seen.insert(name).second) {
            VLM_LOG(5, "Invalid configuration: duplicate collector name");
            code = ConfigErrorCode::InvalidConfiguration;
            return false;
        }
        const std::string serv = text(clause, "serv");
        if (serv.empty()) {
            VLM_LOG(5, "Field 'serv' is not present");
            return false;
        }
        const std::string res = text(clause, "res");
        if (res.empty()) {
            VLM_LOG(5, "Field 'res' is not present");
            return false;
        }
        const std::string index = text(clause, "index");
        if (index.empty()) {
            VLM_LOG(5, "Field 'index' is not present");
            return false;
        }
        VLM_LOG(5,
                "ZEPH-46143: VLM Configuration, Collect clause mandatory arguments = name, serv, res, index: "
                    << name << ", " << serv << ", " << res << ", " << index);
    }
    return true;
}

bool ConfigParser::ValidateClockName(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    const Value& clock = block("CLOCK");
    if (clock.isNull()) {
        VLM_LOG(3, "Failed to get the clock from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    if (clock.size() > 1) {
        VLM_LOG(5, "Size= " << clock.size() << ", only the first clock object will be considered");
    }
    VLM_LOG(5, "ZEPH-47316: VLM wants to define the name of the VLM Clock");
    if (!has(element(clock, 0), "name")) {
        VLM_LOG(3, "Invalid configuration: field 'Clock name' is not present");
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    m_clockName = text(element(clock, 0), "name");
    return true;
}

bool ConfigParser::ValidateReport(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    const Value& reports = block("REPORT");
    if (reports.isNull()) {
        VLM_LOG(3, "Failed to get the Report from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
        return false;
    }
    std::set<std::string> seen;
    for (const Value& report : reports) {
        const std::string name = text(report, "name");
        if (name.empty()) {
            VLM_LOG(5, "Field 'Report name' not present");
            return false;
        }
        if (!seen.insert(name).second) {
            VLM_LOG(5, "Invalid configuration file as report name already found");
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
    const Value& config = block("CONFIG");
    if (config.isNull()) {
        VLM_LOG(3, "Failed to get the configuration from Json Configuration file");
        code = ConfigErrorCode::ConfigBlockMissing;
    }
    m_configName = text(element(config, 0), "name");
    m_configVersion = text(element(config, 0), "version");
}

void ConfigParser::populateClock(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    const Value& clock = block("CLOCK");
    if (clock.isNull()) {
        VLM_LOG(3, "Failed to get the clock from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
        return;
    }
    if (clock.size() > 1) {
        VLM_LOG(5, "Size= " << clock.size() << ", only the first clock object will be considered");
    }
    const Value& first = element(clock, 0);
    m_clockName = text(first, "name");
    VLM_LOG(5, "ZEPH-42903: VLM wants to configure the duration of the VLM Clock");
    m_clockDuration = kShortestClockMs;
    if (!has(first, "duration")) {
        VLM_LOG(5, "ZEPH-43664: Field 'duration' not present, setting it to 60000");
    } else if (const int duration = number(first, "duration"); duration < kShortestClockMs) {
        VLM_LOG(5, "ZEPH-43664: Field 'duration' is less than 1 minute so setting it to 60000");
    } else {
        m_clockDuration = duration;
    }
}

void ConfigParser::populateReport(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    const Value& reports = block("REPORT");
    if (reports.isNull()) {
        VLM_LOG(3, "Failed to get the report from Json Configuration file");
        code = ConfigErrorCode::ReportBlockMissing;
    }
    m_reportName = text(element(reports, 0), "name");
    m_applicationName = text(element(reports, 0), "application");
}

void ConfigParser::populateCollect(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    const Value& collect = block("COLLECT");
    if (collect.isNull()) {
        VLM_LOG(3, "Failed to get the collect services from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
    }
    for (const Value& clause : collect) {
        m_listOfCollectorNames.push_back(text(clause, "name"));
        m_listOfServiceNames.push_back(text(clause, "serv"));
        m_listOfResourceNames.push_back(text(clause, "res"));
        m_listOfIndexes.push_back(number(clause, "index"));
    }
}

void ConfigParser::populateOnEventType() {
    const Value& clocks = block("CLOCK");
    if (clocks.isNull()) {
        VLM_LOG(
            3,
            "Failed to get the clock block from Json Configuration file, can not set the OnEvent Type info.");
    }
    for (const Value& clock : clocks) {
        const std::string name = text(clock, "name");
        if (!m_onEventTypes.emplace(name, CollectorOnEventType::Clock).second) {
            VLM_LOG(5, name << "On Event type name already exists");
        }
    }
    const Value& compares = block("COMPARE");
    if (compares.isNull()) {
        VLM_LOG(3,
                "Failed to get the compare block from Json Configuration file, can not set the compare on "
                "event name and type");
        return;
    }
    for (const Value& compare : compares) {
        if (!m_onEventTypes.emplace(text(compare, "name"), CollectorOnEventType::Compare).second) {
            VLM_LOG(5, "onName already exists");
        }
    }
}

Value ConfigParser::configReportBlock(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    const Value& reports = block("REPORT");
    if (reports.isNull()) {
        VLM_LOG(3, "Failed to get the report from Json Configuration file");
        code = ConfigErrorCode::ReportBlockMissing;
    }
    return reports;
}

Value ConfigParser::getAllCollectorBlock() {
    VLM_TRACE(7);
    return block("COLLECT");
}

void ConfigParser::getAllCollects(std::map<std::string, std::string>& out) {
    VLM_TRACE(7);
    for (const Value& clause : block("COLLECT")) {
        const std::string serv = text(clause, "serv");
        const std::string res = text(clause, "res");
        const int index = number(clause, "index");
        const std::string name = text(clause, "name");
        if (serv.empty() || res.empty() || name.empty()) {
            VLM_LOG(5, "service name or resource name or collect name is empty. Please check config");
            continue;
        }
        out.emplace(serv + "Proxy|" + res + "|" + std::to_string(index), name);
    }
}

void ConfigParser::getAllCollectorNames(ConfigErrorCode& code, std::map<std::string, long long>& out) {
    code = ConfigErrorCode::Ok;
    const Value& collect = block("COLLECT");
    if (collect.isNull()) {
        VLM_LOG(3, "Failed to get the services info from Json Catalog file");
        code = ConfigErrorCode::BlockOrFieldMissing;
        return;
    }
    VLM_LOG(5, "ZEPH-46130: VLM Configuration, Collect clause optional arguments = history");
    for (const Value& clause : collect) {
        VLM_LOG(5, "ZEPH-43134 VLM wants to define the VLM Collector default value for History as 0");
        const std::string name = text(clause, "name");
        std::int64_t history = 0;
        if (has(clause, "history")) {
            toInt64(member(clause, "history"), history);
            VLM_LOG(5, "History Found for collector: " << name);
        } else {
            VLM_LOG(5, "History not Found for collector: " << name);
        }
        out.emplace(name, history);
    }
}

std::vector<std::string> ConfigParser::getAllConfiguredServices(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    std::vector<std::string> services;
    const Value& collect = block("COLLECT");
    if (collect.isNull()) {
        VLM_LOG(3, "Failed to get the configured services from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
    }
    for (const Value& clause : collect) {
        if (const std::string serv = text(clause, "serv"); !contains(services, serv)) {
            services.push_back(serv);
        }
    }
    return services;
}

int ConfigParser::getCollectorObjCount(ConfigErrorCode& code) {
    code = ConfigErrorCode::Ok;
    const Value& collect = block("COLLECT");
    if (collect.isNull()) {
        VLM_LOG(3, "Failed to get the collector obj count from Json Configuration file");
        code = ConfigErrorCode::BlockOrFieldMissing;
    }
    return static_cast<int>(collect.size());
}

void ConfigParser::getAllIndexes(std::string serv, std::string res, std::vector<int>& out) {
    for (const Value& clause : block("COLLECT")) {
        if (text(clause, "serv") != serv || text(clause, "res") != res) {
            continue;
        }
        VLM_LOG(5, "Service " << serv << "  and Resource " << res << "   match found");
        const int index = number(clause, "index");
        if (std::find(out.begin(), out.end(), index) == out.end()) {
            out.push_back(index);
        }
    }
}

void ConfigParser::populateAllServicesAndResources(std::map<std::string, std::vector<std::string>>& out) {
    for (const Value& clause : block("COLLECT")) {
        const std::string serv = text(clause, "serv");
        const std::string res = text(clause, "res");
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
    const Value& collect = block("COLLECT");
    if (collect.isNull()) {
        VLM_LOG(3, "Failed to get the collect services from Json Configuration file");
        return index;
    }
    for (const Value& clause : collect) {
        if (text(clause, "serv") == serv && text(clause, "res") == res) {
            index = number(clause, "index");
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
    for (const Value& clause : block("COLLECT")) {
        if (text(clause, "serv") == serv) {
            m_rememberedResource = text(clause, "res");
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
    for (const Value& clause : block("COLLECT")) {
        if (text(clause, "name") == collectName) {
            m_rememberedService = text(clause, "serv");
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
    const Value& collect = block("COLLECT");
    for (const Value& clause : collect) {
        if (text(clause, "serv") != serv) {
            continue;
        }
        if (!contains(m_listOfResourceNames, res)) {
            VLM_LOG(3, "\nResource name does not exist");
            code = ConfigErrorCode::ResourceNotFound;
            continue;
        }
        // By the resource's name alone, whatever the service: callers rely on the last one.
        for (const Value& other : collect) {
            if (text(other, "res") == res) {
                m_rememberedIndex = number(other, "index");
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
    for (const Value& clause : block("COLLECT")) {
        if (text(clause, "name") == collectName) {
            m_rememberedService = text(clause, "serv");
            m_rememberedResource = text(clause, "res");
        }
        // Also for the elements before it: the pair of the lookup before stands in the answer then.
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
