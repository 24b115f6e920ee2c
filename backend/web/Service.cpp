#include "backend/web/Service.h"

#include <utility>

#include "backend/web/ReadApi.h"

namespace vlmBackend::web {

namespace {

constexpr std::size_t kReaders = 6;
constexpr std::size_t kExportReaders = 2;

/// The tiles' site, for the content security policy: "https://tiles.example" of
/// "https://tiles.example/{z}/{x}/{y}".
std::string siteOf(const std::string& address) {
    const auto slashes = address.find("//");
    return slashes == std::string::npos ? "" : address.substr(0, address.find('/', slashes + 2));
}

ServiceSettings completed(ServiceSettings settings) {
    settings.server.imageSource = siteOf(settings.tiles);
    settings.access.loopback = settings.server.address.isLoopback();
    return settings;
}

}  // namespace

Service::Service(ServiceSettings settings)
    : m_settings(completed(std::move(settings))),
      m_readers(m_settings.database, kReaders),
      m_exportReaders(m_settings.database, kExportReaders),
      m_page(m_settings.page),
      m_access(m_settings.access),
      m_machine(m_settings.machine, m_settings.machineLog),
      m_updates(m_readers, m_metrics),
      m_configure({m_settings.database, m_settings.catalog, m_settings.assignmentsChanged}, m_readers) {
    addReadRoutes(m_router, m_readers, m_exportReaders);
    m_updates.addRoutes(m_router);
    m_machine.addRoutes(m_router);
    m_configure.addRoutes(m_router);
    addOwnRoutes();
}

Service::~Service() {
    m_updates.end();
    m_readers.end();
    m_exportReaders.end();
}

void Service::start() {
    m_server = std::make_unique<Server>(m_settings.server, m_router, m_access, m_metrics);
}

std::string Service::url() const {
    return m_server->address().url(!m_settings.server.certFile.empty());
}

void Service::addOwnRoutes() {
    m_router.add("GET", "/healthz", Role::None, [this](const Request&) {
        try {
            m_readers.use([](store::Sql& sql) { sql.query("SELECT COUNT(*) FROM settings"); });
        } catch (const std::exception& error) {
            return Response::text(std::string("the database: ") + error.what() + "\n", 503);
        }
        return Response::text("works\n");
    });
    m_router.add("GET", "/metrics", Role::View, [this](const Request&) {
        Response out;
        out.type = "application/openmetrics-text; version=1.0.0; charset=utf-8";
        out.body = metricsText(m_metrics, *m_settings.totals, m_readers, m_settings.version);
        return out;
    });
    m_router.add("GET", "/api/session", Role::View, [this](const Request& request) {
        kyo::Json::Value out;
        out["user"] = request.user;
        out["role"] = request.role == Role::Configure ? "configure" : "view";
        out["version"] = m_settings.version;
        out["machine"] = m_machine.isKnown();
        out["tiles"] = m_settings.tiles;
        out["attribution"] = m_settings.attribution;
        return Response::of(out);
    });
    m_router.addOthers(Role::View, [this](const Request& request) { return m_page.file(request.path); });
}

}  // namespace vlmBackend::web
