#include "backend/web/Router.h"

#include <algorithm>
#include <charconv>

#include "backend/store/Export.h"
#include "json/TextLimits.h"

namespace vlmBackend::web {

namespace {

/// Of a body; the configuration inside it is checked for itself.
constexpr vlmProd::TextLimits kBody{.bytes = 8u << 20, .depth = 32, .values = 100'000};

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (std::size_t at = 0; at <= text.size();) {
        const auto end = std::min(text.find(separator, at), text.size());
        parts.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

bool isParameter(const std::string& segment) {
    return segment.size() > 2 && segment.front() == '{' && segment.back() == '}';
}

}  // namespace

bool decodePercent(std::string_view text, bool query, std::string& out) {
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += query && text[i] == '+' ? ' ' : text[i];
            continue;
        }
        unsigned value = 0;
        const char* const digits = text.data() + i + 1;
        if (text.size() - i < 3 || std::from_chars(digits, digits + 2, value, 16).ptr != digits + 2) {
            return false;
        }
        out += static_cast<char>(value);
        i += 2;
    }
    return true;
}

const std::string& Request::required(const std::string& name) const {
    const auto found = query.find(name);
    if (found == query.end() || found->second.empty()) {
        throw Problem(400, name + ": is missing");
    }
    return found->second;
}

std::optional<std::int64_t> Request::number(const std::string& name, std::int64_t least,
                                            std::int64_t most) const {
    const auto found = query.find(name);
    if (found == query.end()) {
        return std::nullopt;
    }
    const std::string& text = found->second;
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < least || value > most) {
        const bool bounded = least != kLeast || most != kMost;
        throw Problem(400,
                      name + ": a whole number" +
                          (bounded ? " from " + std::to_string(least) + " to " + std::to_string(most) : "") +
                          " is expected");
    }
    return value;
}

kyo::Json::Value Request::json() const {
    std::string fault;
    if (!vlmProd::isWithin(kBody, body, fault)) {
        throw Problem(413, "the body: " + fault);
    }
    kyo::Json::Value content;
    kyo::Json::Reader reader;
    if (!reader.parse(body, content, false)) {
        throw Problem(400, "the body is no JSON: " + reader.getFormattedErrorMessages());
    }
    if (!content.isObject()) {
        throw Problem(400, "the body is no JSON object");
    }
    return content;
}

Response Response::of(const kyo::Json::Value& content, int status) {
    Response out;
    out.status = status;
    out.body = kyo::Json::FastWriter().write(content);
    return out;
}

Response Response::text(std::string content, int status) {
    Response out;
    out.status = status;
    out.type = "text/plain; charset=utf-8";
    out.body = std::move(content);
    return out;
}

Response Response::error(int status, const std::string& text) {
    kyo::Json::Value content;
    content["error"] = text;
    return of(content, status);
}

void Router::add(const std::string& method, const std::string& pattern, Role role, Handler handler) {
    const auto parts = split(pattern, '/');
    m_routes.push_back({method, {parts.begin(), parts.end()}, role, std::move(handler)});
}

Response Router::answer(const Route& route, const Request& request) {
    if (request.role < route.role) {
        return request.role == Role::None
                   ? Response::error(401, "a user or a token is needed")
                   : Response::error(403, "the role \"configure\" is needed to change something");
    }
    if (request.method != "GET" && !request.contentType.starts_with("application/json")) {
        throw Problem(415, "the content type application/json is needed");
    }
    return route.handler(request);
}

Response Router::find(const std::string& target, Request& request) const {
    const auto mark = std::min(target.find('?'), target.size());
    request.path = target.substr(0, mark);
    std::vector<std::string> segments;
    for (const std::string_view part : split(request.path, '/')) {
        if (!decodePercent(part, false, segments.emplace_back())) {
            throw Problem(400, "the path: two hexadecimal digits are expected after %");
        }
    }
    if (mark < target.size()) {
        for (const std::string_view pair : split(std::string_view(target).substr(mark + 1), '&')) {
            const auto equals = std::min(pair.find('='), pair.size());
            std::string name;
            std::string value;
            if (!decodePercent(pair.substr(0, equals), true, name) ||
                !decodePercent(pair.substr(std::min(equals + 1, pair.size())), true, value)) {
                throw Problem(400, "the query: two hexadecimal digits are expected after %");
            }
            request.query[name] = value;
        }
    }
    bool otherMethod = false;
    for (const Route& route : m_routes) {
        const auto fits = [](const std::string& expected, const std::string& found) {
            return isParameter(expected) ? !found.empty() : expected == found;
        };
        if (!std::equal(route.segments.begin(), route.segments.end(), segments.begin(), segments.end(),
                        fits)) {
            continue;
        }
        if (route.method != request.method) {
            otherMethod = true;
            continue;
        }
        for (std::size_t i = 0; i < segments.size(); ++i) {
            if (isParameter(route.segments[i])) {
                request.parameters[route.segments[i].substr(1, route.segments[i].size() - 2)] = segments[i];
            }
        }
        return answer(route, request);
    }
    if (m_others.handler && request.method == "GET" && !request.path.starts_with("/api/")) {
        return answer(m_others, request);
    }
    throw otherMethod ? Problem(405, request.path + " knows no " + request.method)
                      : Problem(404, "there is no " + request.path);
}

Response Router::handle(const std::string& target, Request request) const {
    try {
        return find(target, request);
    } catch (const Problem& problem) {
        return Response::error(problem.status, problem.what());
    } catch (const store::ExportError& error) {
        return Response::error(400, error.what());
    } catch (const store::DatabaseError& error) {
        return Response::error(503, std::string("the database: ") + error.what());
    } catch (const std::exception& error) {
        return Response::error(500, error.what());
    }
}

}  // namespace vlmBackend::web
