#pragma once
/// The HTTP side of vlm-backend as a whole.
#include <filesystem>
#include <memory>
#include <string>

#include "backend/web/Access.h"
#include "backend/web/Metrics.h"
#include "backend/web/Page.h"
#include "backend/web/Readers.h"
#include "backend/web/Router.h"
#include "backend/web/Server.h"

namespace vlmBackend::web {

struct ServiceSettings {
    Server::Settings server;
    std::string database;
    std::filesystem::path page;
    std::string tiles;    ///< address of map tiles with {z}, {x} and {y}; empty: none
    std::string version;  ///< of the program
};

/// Owns everything that answers requests. Routes of others are added to router() before start().
class Service {
  public:
    explicit Service(ServiceSettings settings);
    ~Service();

    Router& router() { return m_router; }
    Readers& readers() { return m_readers; }
    /// Serves from now on; throws as Server does.
    void start();
    std::string url() const;

  private:
    void addOwnRoutes();

    const ServiceSettings m_settings;
    Metrics m_metrics;
    Readers m_readers;
    Page m_page;
    Access m_access;
    Router m_router;
    std::unique_ptr<Server> m_server;  ///< last: its threads use the others
};

}  // namespace vlmBackend::web
