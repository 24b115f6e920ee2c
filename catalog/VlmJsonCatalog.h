#pragma once
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kyo/Json.h"

namespace vlmProd {

/// Result of the catalog's operations; the numbers are fixed.
enum class FilesReturnCode : std::int32_t {
    Ok = 0,
    PathNotProvided = 3,
    PathNotValid = 6,
    ServiceDataMissing = 7,  ///< not in the document
    ServiceNotFound = 8,     ///< not in the model
};

/// One signal of a sample.
struct PropertyInfoStruct {
    std::string propertyName;
    std::string signalName;
    std::int32_t privacyGroup = 0;
};

struct ResourceStruct {
    std::int32_t loadFactor = 0;
    std::string serviceId;
    std::string someipKeyProperty;  ///< the property whose value is the instance id
    std::map<std::int32_t, std::vector<PropertyInfoStruct>> instances;
};

struct ServicesStruct {
    std::map<std::string, ResourceStruct> resources;
};

/// The signal catalog: which services, resources, instances and properties can be collected
/// (docs/configuration.md). Start-up loads it once on the main thread, before any reader exists; it is never
/// destroyed. Any thread may read it.
///
/// Names are those of the collector configuration ("GNSS", without "Proxy"). Parts of the file with the wrong
/// type are logged and left out; the rest is loaded.
class VlmJsonCatalog {
  public:
    /// Ends the process with status 1 without a readable file, and with status 250 when the file is not JSON.
    /// Throws a std::string for a second catalog, and std::invalid_argument or std::out_of_range for an
    /// instance id that is no int.
    static VlmJsonCatalog* createSingleton(const std::string& path, FilesReturnCode& code);
    /// Throws a std::string before createSingleton().
    static VlmJsonCatalog* getInstance();

    /// Throws a std::string for an empty path or a file that cannot be opened.
    explicit VlmJsonCatalog(const std::string& path);
    VlmJsonCatalog(const VlmJsonCatalog&) = delete;
    VlmJsonCatalog& operator=(const VlmJsonCatalog&) = delete;

    int getNumberOfServices() { return m_numberOfServices; }
    /// Returns an empty text, and logs, when "meta" is missing.
    std::string getCatalogVersion();
    std::vector<std::string> getServicesNames(FilesReturnCode& code);
    /// The name of the property that selects the instance of a resource; empty for an unknown resource.
    std::string getSomeIPKey(std::string service, std::string resource, FilesReturnCode& code);
    /// The property names of one instance, in file order.
    std::vector<std::string> getAllProperties(std::string service, std::string resource,
                                              std::int32_t instanceId);
    /// Maps each resource name to its instance ids in ascending order.
    std::map<std::string, std::vector<int>> getAllInstancesOfAService(std::string service,
                                                                      FilesReturnCode& code);

  private:
    void PopulateServiceInfo();
    void AddSingleServiceInfoToMap(const std::string& name, const kyo::Json::Value& services);
    ResourceStruct getResourceInfoForService(const std::string& serviceName, const std::string& resourceName,
                                             const kyo::Json::Value& serviceObject);
    void PopulateInstancesOfResource(const std::string& place, const kyo::Json::Value& resourceObject,
                                     std::map<std::int32_t, std::vector<PropertyInfoStruct>>& instances);

    // Set by the constructor, only read afterwards.
    kyo::Json::Value m_document;
    std::string m_catalogFilePath;
    // The first getCatalogVersion(), on any thread, sets the member.
    std::mutex m_versionGuard;
    std::string m_catalogVersion;  ///< guarded by m_versionGuard
    // Set by the constructor, only read afterwards.
    std::int32_t m_numberOfServices = 0;
    std::map<std::string, ServicesStruct> m_services;
};

}  // namespace vlmProd
