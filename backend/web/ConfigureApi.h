#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backend/store/Sql.h"
#include "backend/web/Readers.h"
#include "backend/web/Router.h"
#include "tools/check/CatalogView.h"
#include "tools/check/Document.h"

namespace vlmBackend::web {

/// Checks, configurations, assignments and groups. A request that changes something has a connection of its
/// own: few come, and they must not wait for readers. Any thread.
class ConfigureApi {
  public:
    struct Settings {
        std::string database;
        std::string catalog;            ///< file of the signal catalog, for checking names
        std::function<void()> changed;  ///< called after each change of what vehicles are to have
    };

    /// The readers outlive this object.
    ConfigureApi(Settings settings, Readers& readers);

    /// This object outlives the router.
    void addRoutes(Router& router) const;

    /// Returns the findings of vlm-check in the text of a collector configuration.
    std::vector<vlmCheck::Finding> check(const std::string& text) const;

  private:
    Response addConfiguration(const Request& request) const;
    Response assign(const Request& request) const;
    Response setGroup(const Request& request) const;
    std::unique_ptr<store::Sql> connect() const { return store::connect(m_settings.database); }

    const Settings m_settings;
    Readers& m_readers;
    std::string m_catalogProblem;
    std::optional<vlmCheck::CatalogView> m_catalog;
};

}  // namespace vlmBackend::web
