#pragma once
/// The look-ups of the checks in a signal catalog.
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/check/Document.h"

namespace vlmCheck {

class CatalogView {
  public:
    static constexpr const char* kInstalled = "/etc/VLM_Available_Signals_Catalog_20210311.json";

    /// Returns nothing, with a reason, when the file is no usable catalog.
    static std::optional<CatalogView> read(const std::string& file, std::string& problem);

    /// Ignores the wrong parts of a faulty catalog.
    explicit CatalogView(const Document& document);

    std::vector<std::string> services() const;
    bool hasService(const std::string& service) const { return m_services.count(service) != 0; }
    std::vector<std::string> resources(const std::string& service) const;
    bool hasResource(const std::string& service, const std::string& resource) const;
    std::set<int> instances(const std::string& service, const std::string& resource) const;
    /// The member of a sample that selects the instance ("type").
    std::string keyProperty(const std::string& service, const std::string& resource) const;
    /// The services that have a resource of that name.
    std::vector<std::string> servicesWith(const std::string& resource) const;

  private:
    struct Resource {
        std::string key;
        std::set<int> instances;
    };
    std::map<std::string, std::map<std::string, Resource>> m_services;
};

/// Reads an instance id as the system does: leading white space, a sign, digits; the rest is ignored. Returns
/// false where the system would end its start-up.
bool readInstanceId(const std::string& text, int& id);

}  // namespace vlmCheck
