#include "backend/web/Service.h"

#include <utility>

#include "backend/web/ReadApi.h"

namespace vlmBackend::web {

namespace {

/// The tiles' site, for the content security policy: "https://tiles.example" of
/// "https://tiles.example/{z}/{x}/{y}".
std::string siteOf(const std::string& address) {
    const auto slashes = address.find("//");
    return slashes == std::string::npos ? "" : address.substr(0, address.find('/', slashes + 2));
}

ServiceSettings completed(ServiceSettings settings) {
    settings.server.imageSource = siteOf(settings.tiles);
    return settings;
}

}  // namespace

Service::Service(ServiceSettings settings)
    : m_settings(completed(std::move(settings))),
      m_readers(m_settings.database),
      m_page(m_settings.page),
      m_access(m_settings.server.address.isLoopback()) {
    addReadRoutes(m_router, m_readers);
    addOwnRoutes();
}

Service::~Service() = default;

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
    m_router.add("GET", "/api/session", Role::View, [this](const Request& request) {
        kyo::Json::Value out;
        out["user"] = request.user;
        out["role"] = request.role == Role::Configure ? "configure" : "view";
        out["version"] = m_settings.version;
        out["machine"] = false;
        out["tiles"] = m_settings.tiles;
        return Response::of(out);
    });
    m_router.addOthers(Role::View, [this](const Request& request) { return m_page.file(request.path); });
}

}  // namespace vlmBackend::web
