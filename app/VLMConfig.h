#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "kyo/Json.h"

namespace vlmProd {

/// The application configuration: one JSON file, loaded once, with look-ups by a textual path such as
/// "Services[2].Name" (docs/configuration.md). "[%]" takes its number from the look-up's array
/// index; an empty key is the whole document; further dots are skipped.
///
/// Created by start-up on the main thread before any other thread reads it, never changed and never
/// destroyed. A look-up that fails says why at level 7 and answers the default.
class VLMConfig {
  public:
    /// Throws a std::string when there is an instance already, for an empty path, and for a file that cannot
    /// be opened. Ends the process with status 250 when the file is not JSON.
    static VLMConfig* createSingleton(std::string path);
    /// Throws a std::string before the creation.
    static VLMConfig* getInstance();

    explicit VLMConfig(const std::string& path);
    VLMConfig(const VLMConfig&) = delete;
    VLMConfig& operator=(const VLMConfig&) = delete;

    /// The shared null value when the key cannot be resolved.
    const kyo::Json::Value& getJsonValue(const std::string& key, int arrayIndex = 0);
    std::string getString(const std::string& key, const std::string& defaultValue = "", int arrayIndex = 0);
    std::int32_t getInt(const std::string& key, std::int32_t defaultValue = 0, int arrayIndex = 0);
    std::int64_t getLong(const std::string& key, std::int64_t defaultValue = 0, int arrayIndex = 0);
    bool getBool(const std::string& key, bool defaultValue = false, int arrayIndex = 0);
    double getDouble(const std::string& key, double defaultValue = 0.0, int arrayIndex = 0);
    /// 0 for what is not an array.
    std::size_t getArraySize(const std::string& key);
    /// Numbers as text, a double with six significant digits; the default for what is neither number nor
    /// text.
    std::string getAsString(const std::string& key, const std::string& defaultValue = "", int arrayIndex = 0);

    /// The upper-case hexadecimal SHA-256 digest of the file as it was loaded.
    std::string getConfigVersion() { return m_configVersion; }
    /// The digest of any file; empty when it cannot be opened.
    std::string getFileHash(const std::string& path);

  private:
    kyo::Json::Value m_root;
    std::string m_configFilePath;
    std::string m_configVersion;
};

}  // namespace vlmProd
