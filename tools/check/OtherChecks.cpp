#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "machine/Manifest.h"
#include "tools/check/Checks.h"
#include "tools/check/Schema.h"
#include "tools/check/Suggest.h"

namespace vlmCheck {

namespace {

void checkInstances(const Place& resource, Findings& findings) {
    const Place instances = resource.member("instances");
    if (!instances.value->isObject()) {
        return;
    }
    if (instances.value->empty()) {
        findings.warning(instances, "has no instance: this resource cannot be collected", "");
    }
    std::map<int, std::string> seen;
    for (const auto& id : instances.value->getMemberNames()) {
        const Place instance = instances.member(id);
        if (id.find_first_not_of("-0123456789") != std::string::npos) {
            continue;  // the schema reports it
        }
        int number = 0;
        if (!readInstanceId(id, number)) {
            findings.error(instance,
                           "instance id " + inQuotes(id) + " does not fit: vlmmaster does not start with it",
                           "write a number from -2147483648 to 2147483647");
            continue;
        }
        if (const auto [first, isNew] = seen.emplace(number, id); !isNew) {
            findings.error(instance,
                           "instance ids " + inQuotes(first->second) + " and " + inQuotes(id) +
                               " both read as " + std::to_string(number) + "; the first keeps its properties",
                           "remove one");
        } else if (id != std::to_string(number)) {
            findings.warning(instance,
                             "instance id " + inQuotes(id) + " is read as " + std::to_string(number),
                             "write " + inQuotes(std::to_string(number)));
        }
        std::set<std::string> properties;
        for (const auto& entry : instance.elements()) {
            const std::string property = entry.member("property").text();
            if (!property.empty() && !properties.insert(property).second) {
                findings.warning(entry.member("property"),
                                 "property " + inQuotes(property) + " is listed twice", "remove one");
            }
        }
    }
}

}  // namespace

void checkApplicationConfiguration(const Document& document, Findings& findings) {
    const Place types = Place::rootOf(document).member("OfferedDataTypes");
    if (types.value->isArray() && types.value->empty()) {
        findings.warning(types, "is empty: no data type is announced to the backend", "name at least one");
    }
    std::set<std::string> seen;
    for (const auto& type : types.elements()) {
        if (!type.text().empty() && !seen.insert(type.text()).second) {
            findings.warning(type, inQuotes(type.text()) + " is offered twice", "remove one");
        }
    }
}

void checkCatalog(const Document& document, Findings& findings) {
    const Place services = Place::rootOf(document).member("services");
    if (!services.value->isObject()) {
        return;
    }
    if (services.value->empty()) {
        findings.error(services, "has no service: nothing can be collected", "");
    }
    std::map<std::string, std::string> ownerOfId;
    const std::string suffix = "Proxy";
    for (const auto& serviceName : services.value->getMemberNames()) {
        const Place service = services.member(serviceName);
        if (serviceName.size() > suffix.size() &&
            serviceName.compare(serviceName.size() - suffix.size(), suffix.size(), suffix) == 0) {
            findings.warning(
                service, "a service name ends in \"Proxy\", which is appended once more for the registry",
                "name it " + inQuotes(serviceName.substr(0, serviceName.size() - suffix.size())));
        }
        if (!service.value->isObject()) {
            continue;
        }
        if (service.value->empty()) {
            findings.warning(service, "has no resource", "");
        }
        std::string serviceId;
        for (const auto& resourceName : service.value->getMemberNames()) {
            const Place resource = service.member(resourceName);
            const Place id = resource.member("serviceId");
            if (!id.text().empty()) {
                if (serviceId.empty()) {
                    serviceId = id.text();
                    const auto [owner, isNew] = ownerOfId.emplace(serviceId, serviceName);
                    if (!isNew) {
                        findings.warning(id,
                                         "service id " + inQuotes(serviceId) + " belongs to service " +
                                             inQuotes(owner->second) + " already",
                                         "");
                    }
                } else if (serviceId != id.text()) {
                    findings.warning(id,
                                     "differs from the service id " + inQuotes(serviceId) +
                                         " of the service's other resources",
                                     "");
                }
            }
            checkInstances(resource, findings);
        }
    }
}

void checkManifest(const Document& document, Findings& findings) {
    const auto& said = findings.list();
    const bool refused =
        std::any_of(said.begin(), said.end(), [](const Finding& f) { return f.severity == Severity::Error; });
    machine::Manifest manifest;
    std::string error;
    if (!machine::readManifest(document.root, manifest, error)) {
        if (!refused) {  // "someip.discovery.port: a number is expected"
            Place place = Place::rootOf(document);
            const auto colon = error.find(": ");
            std::istringstream keys(error.substr(0, colon));
            for (std::string key; colon != std::string::npos && std::getline(keys, key, '.');) {
                place = place.member(key);
            }
            findings.error(place, colon == std::string::npos ? error : error.substr(colon + 2));
        }
        return;
    }
    const Place root = Place::rootOf(document);
    const Place mqtt = root.member("backend").member("mqtt");
    const auto& tls = manifest.backend.mqtt;
    for (const auto& [key, file] :
         {std::pair{"caFile", tls.caFile}, {"certFile", tls.certFile}, {"keyFile", tls.keyFile}}) {
        std::error_code ignored;
        if (!file.empty() && !std::filesystem::exists(file, ignored)) {
            findings.warning(mqtt.member(key), inQuotes(file) + " does not exist on this machine");
        }
    }
    if (!tls.password.empty() && tls.user.empty()) {
        findings.warning(mqtt.member("password"), "is not used without a user", "add \"user\"");
    }
    const Place backendPlace = root.member("backend");
    if (manifest.backend.spool && manifest.backend.transport != "mqtt") {
        findings.warning(backendPlace.member("spool"),
                         "is not used: the folder backend keeps envelopes by itself",
                         "add \"transport\": \"mqtt\"");
    }
    if (backendPlace.has("remember") && !manifest.backend.spool) {
        findings.warning(backendPlace.member("remember"), "is not used without a spool, where it is kept",
                         "add \"spool\"");
    }
    const auto& discovery = manifest.someip.discovery;
    if (discovery.cyclicOfferMs >= discovery.ttlSeconds * std::uint64_t{1000}) {
        findings.warning(root.member("someip").member("discovery"),
                         "offers are repeated no sooner than they expire",
                         "keep \"cyclicOfferMs\" below a third of \"ttlSeconds\"");
    }
    const Place backend = root.member("backend");
    if (backend.has("mqtt") && !backend.has("transport")) {
        findings.warning(backend, "\"transport\" is not given, so \"directory\" is used and \"mqtt\" is not",
                         "add \"transport\": \"mqtt\"");
    }
}

Finding namesNotChecked(const std::string& problem) {
    return {Severity::Warning, 0, "", "services, resources and indexes were not checked: " + problem,
            "name a catalog with --catalog"};
}

std::optional<Kind> guessKind(const Document& document) {
    if (!document.root.isObject()) {
        return std::nullopt;
    }
    constexpr Kind kinds[] = {Kind::Collector, Kind::Application, Kind::Catalog, Kind::Manifest};
    std::optional<Kind> best;
    int bestScore = 0;
    bool shared = false;
    for (const Kind kind : kinds) {
        const auto known = Schema::of(kind).topLevelNames();
        int score = 0;
        for (const auto& key : document.root.getMemberNames()) {
            const bool exact = std::find(known.begin(), known.end(), key) != known.end();
            score += exact ? 3 : nearest(key, known).empty() ? 0 : 1;
        }
        if (score > bestScore) {
            bestScore = score;
            best = kind;
            shared = false;
        } else if (score == bestScore && score > 0) {
            shared = true;
        }
    }
    return shared ? std::nullopt : best;
}

std::vector<Finding> checkDocument(const Document& document, Kind kind, const CatalogView* catalog) {
    Findings findings;
    Schema::of(kind).check(document, findings);
    switch (kind) {
        case Kind::Collector:
            checkCollectorConfiguration(document, catalog, findings);
            break;
        case Kind::Application:
            checkApplicationConfiguration(document, findings);
            break;
        case Kind::Catalog:
            checkCatalog(document, findings);
            break;
        case Kind::Manifest:
            checkManifest(document, findings);
            break;
    }
    auto& list = findings.list();
    std::stable_sort(list.begin(), list.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    return list;
}

}  // namespace vlmCheck
