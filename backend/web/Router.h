#pragma once
/// From a request to an answer, without a socket: the server, the tests and the fuzz target use the same
/// routes.
///
///     router.add("PUT", "/api/vehicles/{vehicle}/group", Role::Configure, [&](const Request& request) {
///         const kyo::Json::Value content = request.json();
///         if (!known(request.parameter("vehicle"))) {
///             throw Problem(404, "no vehicle is named ...");
///         }
///         return Response::of(answer);
///     });
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kyo/Json.h"

namespace vlmBackend::web {

enum class Role : std::uint8_t {
    None,       ///< anybody
    View,       ///< reads
    Configure,  ///< reads and changes
};

/// The request is answered with {"error": text}. Handlers throw it.
struct Problem : std::runtime_error {
    Problem(int code, const std::string& text) : std::runtime_error(text), status(code) {}
    int status;  ///< 400 wrong request, 404 unknown, 409 conflict, 422 content that cannot be used, ...
};

struct Request {
    static constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
    static constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();

    std::string method;                             ///< "GET" also for HEAD
    std::string path;                               ///< as it came, without the query
    std::map<std::string, std::string> parameters;  ///< of the pattern, decoded
    std::map<std::string, std::string> query;       ///< decoded
    std::string contentType;
    std::string body;
    std::string user;  ///< empty without users
    Role role = Role::None;

    /// Returns a parameter, which the pattern must name.
    const std::string& parameter(const std::string& name) const { return parameters.at(name); }
    /// Returns a member of the query. Throws Problem when it is missing or empty.
    const std::string& required(const std::string& name) const;
    /// Returns a whole number of the query; nothing when it is missing. Throws Problem for another text or a
    /// number outside the range.
    std::optional<std::int64_t> number(const std::string& name, std::int64_t least = kLeast,
                                       std::int64_t most = kMost) const;
    /// Returns the body, a JSON object. Throws Problem for anything else.
    kyo::Json::Value json() const;
};

/// Sends a part of a long answer. Returns false when the client is gone. An empty part only checks that.
using Put = std::function<bool(std::string_view part)>;

struct Response {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    /// Writes the body on the request's thread, after this answer's status and headers; instead of `body`.
    std::function<void(const Put& put)> stream;

    static Response of(const kyo::Json::Value& content, int status = 200);
    static Response text(std::string content, int status = 200);
    static Response error(int status, const std::string& text);
};

/// All routes are added before the first request; then any thread may call handle().
class Router {
  public:
    using Handler = std::function<Response(const Request& request)>;

    /// A segment of `pattern` matches an equal one; "{name}" matches any that is not empty. `role`: the
    /// lowest that may call.
    void add(const std::string& method, const std::string& pattern, Role role, Handler handler);

    /// Handles a GET outside /api/ that matches no pattern.
    void addOthers(Role role, Handler handler) { m_others = {"GET", {}, role, std::move(handler)}; }

    /// Sets path, parameters and query of the request from `target`, path and query as in the request line,
    /// and returns the handler's answer. Never throws. What a handler throws becomes an error with a status:
    /// that of a Problem, 400 for ExportError, 503 for DatabaseError, 500 otherwise.
    Response handle(const std::string& target, Request request) const;

  private:
    struct Route {
        std::string method;
        std::vector<std::string> segments;
        Role role = Role::None;
        Handler handler;
    };
    Response find(const std::string& target, Request& request) const;
    static Response answer(const Route& route, const Request& request);

    std::vector<Route> m_routes;
    Route m_others;  ///< without a handler: none
};

/// Decodes %xx; "+" is a space in a query. Returns false when no hexadecimal number follows a %.
bool decodePercent(std::string_view text, bool query, std::string& out);

}  // namespace vlmBackend::web
