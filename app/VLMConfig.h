#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// The application configuration: one JSON file, loaded once, with look-ups by a textual path such as
/// "Services[2].Name" (docs/configuration.md). "[%]" takes its number from the look-up's array
/// index; an empty key is the whole document; additional dots are ignored.
///
/// Created by start-up on the main thread before any other thread reads it; never changed, never destroyed. A
/// failed look-up logs the reason at level 7 and returns the default.
class VLMConfig {
  public:
    /// Throws a std::string for a second instance, an empty path or a file that cannot be opened. Ends the
    /// process with status 250 when the file is not JSON.
    static VLMConfig* createSingleton(std::string path);
    /// Throws a std::string before createSingleton().
    static VLMConfig* getInstance();

    explicit VLMConfig(const std::string& path);
    VLMConfig(const VLMConfig&) = delete;
    VLMConfig& operator=(const VLMConfig&) = delete;

    /// Returns the shared null value when the key cannot be resolved.
    const kyo::Json::Value& getJsonValue(const std::string& key, int arrayIndex = 0);
    std::string getString(const std::string& key, const std::string& defaultValue = "", int arrayIndex = 0);
    std::int32_t getInt(const std::string& key, std::int32_t defaultValue = 0, int arrayIndex = 0);
    std::int64_t getLong(const std::string& key, std::int64_t defaultValue = 0, int arrayIndex = 0);
    bool getBool(const std::string& key, bool defaultValue = false, int arrayIndex = 0);
    double getDouble(const std::string& key, double defaultValue = 0.0, int arrayIndex = 0);
    /// 0 unless the value is an array.
    std::size_t getArraySize(const std::string& key);
    /// Returns a number as text, a double with six significant digits; the default unless the value is a
    /// number or a text.
    std::string getAsString(const std::string& key, const std::string& defaultValue = "", int arrayIndex = 0);

    /// The SHA-256 digest of the loaded file, in upper-case hexadecimal.
    std::string getConfigVersion() { return m_configVersion; }
    /// The digest of a file; empty when it cannot be opened.
    std::string getFileHash(const std::string& path);

  private:
    kyo::Json::Value m_root;
    std::string m_configFilePath;
    std::string m_configVersion;
};

}  // namespace vlmProd
