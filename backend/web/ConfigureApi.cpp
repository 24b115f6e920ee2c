#include "backend/web/ConfigureApi.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <utility>

#include "backend/store/Configurations.h"
#include "backend/web/Queries.h"
#include "json/JsonFields.h"
#include "json/TextLimits.h"
#include "tools/check/Checks.h"

namespace vlmBackend::web {

using kyo::Json::Value;
using vlmCheck::Finding;

namespace {

/// What a vehicle takes, see docs/mqtt.md: 8 MiB of base64.
constexpr vlmProd::TextLimits kConfiguration{.bytes = 6u << 20, .depth = 64, .values = 100'000};

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// A member of the body, a text. Throws Problem.
std::string textMember(const Value& body, const char* name) {
    const Value& value = vlmProd::member(body, name);
    if (!value.isString()) {
        throw Problem(400, std::string(name) + ": a text is expected");
    }
    return value.asString();
}

Value json(const std::vector<Finding>& findings) {
    Value out(kyo::Json::arrayValue);
    for (const Finding& finding : findings) {
        out.append(finding.toJson());
    }
    return out;
}

Value json(const store::Configuration& configuration) {
    Value out(kyo::Json::objectValue);
    out["id"] = static_cast<kyo::Json::Int64>(configuration.id);
    out["name"] = configuration.name;
    out["version"] = static_cast<kyo::Json::Int64>(configuration.version);
    out["recordId"] = configuration.recordId;
    out["createdMs"] = static_cast<kyo::Json::Int64>(configuration.createdMs);
    out["user"] = configuration.user;
    return out;
}

Value json(const store::Assignment& assignment) {
    Value out(kyo::Json::objectValue);
    out["vehicle"] = assignment.vehicle;
    out["group"] = assignment.group;
    out["configuration"] =
        assignment.configuration ? Value(static_cast<kyo::Json::Int64>(*assignment.configuration)) : Value();
    return out;
}

template <class List>
Value jsonList(const List& list) {
    Value out(kyo::Json::arrayValue);
    for (const auto& one : list) {
        out.append(json(one));
    }
    return out;
}

/// What the store refuses becomes an answer.
template <class Work>
Response answered(Work&& work) {
    try {
        return work();
    } catch (const store::ConfigurationError& error) {
        throw Problem(error.cause == store::ConfigurationError::Cause::Unknown ? 404 : 400, error.what());
    }
}

}  // namespace

ConfigureApi::ConfigureApi(Settings settings, Readers& readers)
    : m_settings(std::move(settings)),
      m_readers(readers),
      m_catalog(vlmCheck::CatalogView::read(m_settings.catalog, m_catalogProblem)) {}

std::vector<Finding> ConfigureApi::check(const std::string& text) const {
    std::vector<Finding> findings;
    if (std::string fault; !vlmProd::isWithin(kConfiguration, text, fault)) {
        findings.push_back({vlmCheck::Severity::Error, 0, "", fault, ""});
        return findings;
    }
    vlmCheck::Document document;
    document.text = text;
    if (!vlmCheck::parseDocument(document, findings)) {
        return findings;
    }
    for (Finding& finding :
         vlmCheck::checkDocument(document, vlmCheck::Kind::Collector, m_catalog ? &*m_catalog : nullptr)) {
        findings.push_back(std::move(finding));
    }
    if (!m_catalog) {
        findings.push_back(vlmCheck::namesNotChecked(m_catalogProblem));
    }
    return findings;
}

Response ConfigureApi::addConfiguration(const Request& request) const {
    const Value body = request.json();
    const std::string name = textMember(body, "name");
    const std::string text = textMember(body, "text");
    const auto findings = check(text);
    if (std::any_of(findings.begin(), findings.end(),
                    [](const Finding& finding) { return finding.severity == vlmCheck::Severity::Error; })) {
        Value out(kyo::Json::objectValue);
        out["error"] = "the configuration has errors";
        out["findings"] = json(findings);
        return Response::of(out, 422);
    }
    return answered([&] {
        return Response::of(json(store::addConfiguration(*connect(), name, text, request.user, nowMs())),
                            201);
    });
}

Response ConfigureApi::assign(const Request& request) const {
    const Value body = request.json();
    store::Assignment assignment{textMember(body, "vehicle"), textMember(body, "group"), std::nullopt};
    const Value& id = vlmProd::member(body, "configuration");
    if (!body.isMember("configuration") || !(id.isNull() || id.isInt64())) {
        throw Problem(400, "configuration: the number of one, or null, is expected");
    }
    if (!id.isNull()) {
        assignment.configuration = id.asInt64();
    }
    return answered([&] {
        store::assign(*connect(), assignment, request.user, nowMs());
        m_settings.changed();
        return Response::of(json(assignment));
    });
}

Response ConfigureApi::setGroup(const Request& request) const {
    const std::string& name = request.parameter("vehicle");
    const std::string group = textMember(request.json(), "group");
    return answered([&] {
        const auto sql = connect();
        store::setGroup(*sql, name, group);
        m_settings.changed();
        return Response::of(vehicle(*sql, name));
    });
}

void ConfigureApi::addRoutes(Router& router) const {
    router.add("POST", "/api/check", Role::View, [this](const Request& request) {
        return Response::of(json(check(textMember(request.json(), "text"))));
    });
    router.add("GET", "/api/configurations", Role::View, [this](const Request&) {
        Value out;
        m_readers.use([&out](store::Sql& sql) { out = jsonList(store::configurations(sql)); });
        return Response::of(out);
    });
    router.add("POST", "/api/configurations", Role::Configure,
               [this](const Request& request) { return addConfiguration(request); });
    router.add("GET", "/api/configurations/{id}", Role::View, [this](const Request& request) {
        const std::string& text = request.parameter("id");
        std::int64_t id = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
        std::optional<store::Configuration> found;
        if (error == std::errc{} && end == text.data() + text.size()) {
            m_readers.use([&](store::Sql& sql) { found = store::configuration(sql, id); });
        }
        if (!found) {
            throw Problem(404, "there is no configuration " + text);
        }
        Value out = json(*found);
        out["text"] = found->text;
        return Response::of(out);
    });
    router.add("GET", "/api/assignments", Role::View, [this](const Request&) {
        Value out;
        m_readers.use([&out](store::Sql& sql) { out = jsonList(store::assignments(sql)); });
        return Response::of(out);
    });
    router.add("PUT", "/api/assignments", Role::Configure,
               [this](const Request& request) { return assign(request); });
    router.add("PUT", "/api/vehicles/{vehicle}/group", Role::Configure,
               [this](const Request& request) { return setGroup(request); });
}

}  // namespace vlmBackend::web
