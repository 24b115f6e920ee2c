#pragma once
/// The HTTP side of vlm-backend as a whole.
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "backend/web/Access.h"
#include "backend/web/ConfigureApi.h"
#include "backend/web/Machine.h"
#include "backend/web/Metrics.h"
#include "backend/web/Page.h"
#include "backend/web/Readers.h"
#include "backend/web/Router.h"
#include "backend/web/Server.h"
#include "backend/web/Updates.h"

namespace vlmBackend::web {

struct ServiceSettings {
    Server::Settings server;
    AccessSettings access;  ///< its member `loopback` follows from the address
    std::string database;
    std::string machine;     ///< state socket of this machine's vlmmaster; empty: none
    std::string machineLog;  ///< its log file
    std::shared_ptr<const store::Totals> totals = std::make_shared<store::Totals>();
    std::filesystem::path page;
    std::string catalog;  ///< file of the signal catalog, for checking configurations
    /// Called on a request's thread when vehicles are to have other configurations.
    std::function<void()> assignmentsChanged = [] {};
    std::string tiles;        ///< address of map tiles with {z}, {x} and {y}; empty: none
    std::string attribution;  ///< whose map that is, a text
    std::string version;      ///< of the program
};

/// Owns everything that answers requests.
class Service {
  public:
    explicit Service(ServiceSettings settings);
    ~Service();

    Router& router() { return m_router; }
    Readers& readers() { return m_readers; }
    Updates& updates() { return m_updates; }
    /// Serves from now on; throws as Server does.
    void start();
    std::string url() const;

  private:
    void addOwnRoutes();

    const ServiceSettings m_settings;
    Metrics m_metrics;
    Readers m_readers;
    Readers m_exportReaders;  ///< exports wait for each other, and nobody waits for them
    Page m_page;
    Access m_access;
    Machine m_machine;
    Updates m_updates;
    ConfigureApi m_configure;
    Router m_router;
    std::unique_ptr<Server> m_server;  ///< last: its threads use the others
};

}  // namespace vlmBackend::web
