#include "backend/web/Access.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace vlmBackend::web {

namespace {

/// The names under which a browser on this machine asks. A page of another site whose name leads here has
/// another one.
bool isThisMachine(std::string_view host) {
    constexpr std::array names{"localhost", "127.0.0.1", "[::1]"};
    const auto bracket = host.find(']');
    const auto colon = host.find(':', bracket == std::string_view::npos ? 0 : bracket);
    host = host.substr(0, colon);
    return std::find(names.begin(), names.end(), host) != names.end();
}

}  // namespace

std::optional<Response> Access::admit(const Caller& caller, Request& request) {
    if (m_loopback && !isThisMachine(caller.host)) {
        return Response::error(421, "the name \"" + caller.host + "\" is not this machine: ask localhost");
    }
    request.role = Role::Configure;
    return std::nullopt;
}

}  // namespace vlmBackend::web
