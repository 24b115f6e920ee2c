#include "app/VLMConfig.h"

#include <botan/hash.h>
#include <botan/hex.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <sstream>

#include "base/FileText.h"
#include "base/VlmLog.h"
#include "json/FieldReader.h"
#include "json/JsonFields.h"

namespace vlmProd {

using kyo::Json::Value;

namespace {

/// Created by start-up; lives until the process ends.
VLMConfig* configSingleton = nullptr;

constexpr int kMalformedFile = -6;  // exit status 250

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Reads the digits at `at` and advances `at`. The value saturates at a limit beyond the length of any array.
long long readDigits(const std::string& key, std::size_t& at) {
    constexpr long long limit = std::numeric_limits<std::uint32_t>::max();
    long long number = 0;
    for (; at < key.size() && isDigit(key[at]); ++at) {
        number = std::min(limit, number * 10 + (key[at] - '0'));
    }
    return number;
}

bool isValidIndex(const Value& array, long long index) {
    return index >= 0 && index < static_cast<long long>(array.size());
}

/// The value where it is a whole number that the type holds, else the default; `fault` names one out of
/// range.
template <typename Number>
Number wholeNumber(const Value& value, const std::string& key, Number otherwise, std::string& fault) {
    FieldReader reader("application configuration", Reading::Exact);
    if (value.isIntegral() && !reader.root(value, key).number(otherwise)) {
        fault = reader.faults().front();
    }
    return otherwise;
}

}  // namespace

VLMConfig* VLMConfig::createSingleton(std::string path) {
    if (configSingleton != nullptr) {
        throw std::string("VLM Config::create() ERROR: VLM Config already created!");
    }
    configSingleton = new VLMConfig(path);
    return configSingleton;
}

VLMConfig* VLMConfig::getInstance() {
    if (configSingleton == nullptr) {
        throw std::string("VLM Config::getInstance() ERROR: VLM Config not created yet!");
    }
    return configSingleton;
}

VLMConfig::VLMConfig(const std::string& path) : m_configFilePath(path) {
    VLM_LOG(7, " VLM configfile=" << path);
    if (path.empty()) {
        throw std::string("VLM Config file path not provided!");
    }
    std::string content;
    if (!readWholeFile(path, content)) {
        throw std::string("VLM Config file path not valid");
    }
    kyo::Json::Reader reader;
    if (!reader.parse(content, m_root)) {
        VLM_LOG(3, path << ": " << reader.getFormattedErrorMessages());
        VLM_LOG(1, "VLM config file parsing not successful, check format");
        std::exit(kMalformedFile);
    }
    m_configVersion = getFileHash(path);
}

// Not const: the function's log lines contain its signature, and operators know it without const.
const Value& VLMConfig::getJsonValue(const std::string& key, int arrayIndex) {
    const Value* current = &m_root;
    std::size_t at = 0;
    while (at < key.size()) {
        if (key[at] == '.') {
            ++at;
        } else if (key[at] == '[') {
            if (!current->isArray()) {
                VLM_LOG_AT(7, 226, "VLMConfig::getJsonValue() - FAIL: Not Array Type, key=" << key);
                return Value::nullSingleton();
            }
            ++at;
            long long index = arrayIndex;
            if (at < key.size() && key[at] == '%') {
                ++at;
            } else {
                index = readDigits(key, at);
            }
            if (at >= key.size() || key[at] != ']') {
                VLM_LOG_AT(7, 247,
                           "Config::getJsonValue() - FAIL: No closing ] ended unexpectedly!, key=" << key);
                return Value::nullSingleton();
            }
            ++at;
            if (!isValidIndex(*current, index)) {
                VLM_LOG_AT(7, 255,
                           "VLMConfig::getJsonValue() - FAIL: Not valid index! arrayindex="
                               << index << ", key=" << key);
                return Value::nullSingleton();
            }
            current = &(*current)[static_cast<kyo::Json::ArrayIndex>(index)];
        } else {
            const std::size_t end = std::min(key.find_first_of(".[", at), key.size());
            const std::string name = key.substr(at, end - at);
            if (!current->isObject()) {
                VLM_LOG_AT(7, 281,
                           "VLMConfig::getJsonValue() - Unable to resolve.  Object expected at "
                               << key.substr(at) << ", key=" << key);
                return Value::nullSingleton();
            }
            current = &member(*current, name);
            if (current->isNull()) {
                VLM_LOG_AT(7, 292, "Config::getJsonValue() - Key not present in JSON! ");
                return Value::nullSingleton();
            }
            at = end;
        }
    }
    return *current;
}

std::string VLMConfig::getString(const std::string& key, const std::string& defaultValue, int arrayIndex) {
    const Value& value = getJsonValue(key, arrayIndex);
    return value.isString() ? value.asString() : defaultValue;
}

std::int32_t VLMConfig::getInt(const std::string& key, std::int32_t defaultValue, int arrayIndex) {
    std::string fault;
    const std::int32_t number = wholeNumber(getJsonValue(key, arrayIndex), key, defaultValue, fault);
    if (!fault.empty()) {
        VLM_LOG(3, fault);
    }
    return number;
}

std::int64_t VLMConfig::getLong(const std::string& key, std::int64_t defaultValue, int arrayIndex) {
    std::string fault;
    const std::int64_t number = wholeNumber(getJsonValue(key, arrayIndex), key, defaultValue, fault);
    if (!fault.empty()) {
        VLM_LOG(3, fault);
    }
    return number;
}

bool VLMConfig::getBool(const std::string& key, bool defaultValue, int arrayIndex) {
    const Value& value = getJsonValue(key, arrayIndex);
    return value.isBool() ? value.asBool() : defaultValue;
}

double VLMConfig::getDouble(const std::string& key, double defaultValue, int arrayIndex) {
    const Value& value = getJsonValue(key, arrayIndex);
    return value.isNumeric() ? value.asDouble() : defaultValue;
}

std::size_t VLMConfig::getArraySize(const std::string& key) {
    const Value& value = getJsonValue(key, 0);
    return value.isArray() ? value.size() : 0;
}

std::string VLMConfig::getAsString(const std::string& key, const std::string& defaultValue, int arrayIndex) {
    const Value& value = getJsonValue(key, arrayIndex);
    std::ostringstream text;
    switch (value.type()) {
        case kyo::Json::intValue:
            text << value.asInt64();
            return text.str();
        case kyo::Json::uintValue:
            text << value.asUInt64();
            return text.str();
        case kyo::Json::realValue:
            text << value.asDouble();
            return text.str();
        case kyo::Json::stringValue:
            return value.asString();
        default:
            return defaultValue;
    }
}

std::string VLMConfig::getFileHash(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!file) {
        return "";
    }
    const auto hash = Botan::HashFunction::create("SHA-256");
    if (!hash) {
        VLM_LOG(3, "The cryptographic library has no SHA-256");
        return "";
    }
    std::uint8_t chunk[4096];
    for (std::size_t count = std::fread(chunk, 1, sizeof chunk, file.get()); count > 0;
         count = std::fread(chunk, 1, sizeof chunk, file.get())) {
        hash->update(chunk, count);
    }
    return Botan::hex_encode(hash->final(), true);
}

}  // namespace vlmProd
