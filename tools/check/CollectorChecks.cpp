#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/check/Checks.h"
#include "tools/check/Suggest.h"

namespace vlmCheck {

namespace {

constexpr int shortestClock = 60000;  // ms; the system raises shorter periods to this

std::vector<std::string> namesOf(const std::vector<Place>& elements) {
    std::vector<std::string> names;
    for (const auto& element : elements) {
        names.push_back(element.member("name").text());
    }
    return names;
}

void checkConfig(const Place& root, Findings& findings) {
    const Place config = root.member("CONFIG");
    if (config.value->isNull()) {
        findings.warning(root, "\"CONFIG\" is missing: reports carry an empty configuration name and version",
                         "add \"CONFIG\": [{\"name\": ..., \"version\": ...}]");
        return;
    }
    const auto elements = config.elements();
    for (const char* key : {"name", "version"}) {
        if (!elements.empty() && elements[0].member(key).text().empty()) {
            findings.warning(elements[0], std::string("no ") + key + ": reports carry an empty one",
                             std::string("add \"") + key + "\"");
        }
    }
    if (elements.size() > 1) {
        findings.warning(elements[1], "is ignored: only the first element of \"CONFIG\" is read",
                         "remove it");
    }
}

void checkClock(const Place& root, Findings& findings) {
    const auto clocks = root.member("CLOCK").elements();
    if (clocks.empty()) {
        return;  // the schema reports it
    }
    const Place& clock = clocks[0];
    if (clock.has("name") && clock.member("name").text().empty()) {
        findings.warning(clock.member("name"), "the clock's name is empty", "give it a name for \"on\"");
    }
    const Place duration = clock.member("duration");
    if (duration.value->isInt() && duration.value->asInt() < shortestClock) {  // others: the schema's check
        findings.warning(duration, "is " + duration.text() + " ms, below a minute: the clock runs with 60000",
                         "write 60000 or more");
    }
    for (std::size_t i = 1; i < clocks.size(); ++i) {
        findings.warning(clocks[i], "only the first clock ticks; this one is a further name for it",
                         "remove it, or let \"on\" name the first");
    }
}

/// The names that "on" may use; adds findings about them.
std::vector<std::string> onNames(const Place& root, Findings& findings) {
    std::vector<std::string> names;
    for (const char* block : {"CLOCK", "COMPARE"}) {
        for (const auto& element : root.member(block).elements()) {
            const std::string name = element.member("name").text();
            if (name.empty()) {
                continue;
            }
            if (std::find(names.begin(), names.end(), name) != names.end()) {
                findings.warning(
                    element.member("name"),
                    inQuotes(name) + " names an earlier CLOCK or COMPARE element already; the first counts",
                    "rename it");
            }
            names.push_back(name);
        }
    }
    return names;
}

void checkReports(const Place& root, Findings& findings) {
    const auto collectorNames = namesOf(root.member("COLLECT").elements());
    const std::set<std::string> known(collectorNames.begin(), collectorNames.end());
    std::set<std::string> reports;
    std::set<std::string> gathered;
    for (const auto& report : root.member("REPORT").elements()) {
        const std::string name = report.member("name").text();
        if (!name.empty() && !reports.insert(name).second) {
            findings.error(report.member("name"), "another report is named " + inQuotes(name),
                           "give each report a name of its own");
        }
        if (report.member("application").text().empty()) {
            findings.warning(report, "no application: the report carries an empty \"applicationName\"",
                             "add \"application\"");
        }
        const auto from = report.member("from").elements();
        if (from.empty()) {
            findings.warning(report, "gathers nothing: an empty report is sent at every tick",
                             "name collectors in \"from\"");
        }
        std::set<std::string> own;
        for (const auto& entry : from) {
            const std::string collector = entry.text();
            if (!own.insert(collector).second) {
                findings.warning(entry, inQuotes(collector) + " is named twice", "remove one");
            } else if (known.count(collector) == 0) {
                findings.error(entry, "no collector is named " + inQuotes(collector),
                               didYouMean(collector, collectorNames));
            }
        }
        gathered.insert(own.begin(), own.end());
    }
    for (const auto& collector : root.member("COLLECT").elements()) {
        const std::string name = collector.member("name").text();
        if (!name.empty() && gathered.insert(name).second) {  // once for a repeated name
            findings.warning(
                collector,
                "no report gathers collector " + inQuotes(name) + ": what it collects is never sent",
                "name it in a report's \"from\"");
        }
    }
}

/// Checks one collector's service, resource and index in the catalog.
void checkAgainstCatalog(const Place& collector, const CatalogView& catalog, Findings& findings) {
    const std::string service = collector.member("serv").text();
    const std::string resource = collector.member("res").text();
    if (service.empty() || resource.empty()) {
        return;
    }
    if (!catalog.hasService(service)) {
        const std::string suffix = "Proxy";
        std::string suggestion = didYouMean(service, catalog.services());
        if (service.size() > suffix.size() &&
            service.compare(service.size() - suffix.size(), suffix.size(), suffix) == 0 &&
            catalog.hasService(service.substr(0, service.size() - suffix.size()))) {
            suggestion = "write " + inQuotes(service.substr(0, service.size() - suffix.size())) +
                         "; the system appends \"Proxy\" itself";
        } else if (suggestion.empty()) {
            const auto others = catalog.servicesWith(resource);
            suggestion = others.empty() ? "known services: " + listed(catalog.services())
                                        : "services with " + inQuotes(resource) + ": " + listed(others);
        }
        findings.error(collector.member("serv"), "the catalog has no service " + inQuotes(service),
                       suggestion);
        return;
    }
    if (!catalog.hasResource(service, resource)) {
        std::string suggestion = didYouMean(resource, catalog.resources(service));
        if (suggestion.empty()) {
            suggestion = service + " has: " + listed(catalog.resources(service));
        }
        findings.error(collector.member("res"),
                       "service " + inQuotes(service) + " has no resource " + inQuotes(resource), suggestion);
        return;
    }
    const Place index = collector.member("index");
    if (!index.value->isInt()) {
        return;  // the schema reports it
    }
    const auto instances = catalog.instances(service, resource);
    if (instances.count(index.value->asInt()) == 0) {
        std::vector<std::string> ids;
        for (const int id : instances) {
            ids.push_back(std::to_string(id));
        }
        findings.error(
            index, service + "." + resource + " has no instance " + index.text(),
            "instances, by " + inQuotes(catalog.keyProperty(service, resource)) + ": " + listed(ids));
    }
}

void checkCollectors(const Place& root, const CatalogView* catalog, Findings& findings) {
    const auto drivers = onNames(root, findings);
    std::map<std::string, std::string> pathOfName;
    std::map<std::string, std::string> nameOfInstance;
    for (const auto& collector : root.member("COLLECT").elements()) {
        const std::string name = collector.member("name").text();
        if (!name.empty() && !pathOfName.emplace(name, collector.path).second) {
            findings.error(collector.member("name"),
                           "a collector named " + inQuotes(name) + " exists at " + pathOfName[name] +
                               " already: the whole configuration is refused",
                           "give each collector a name of its own");
        }
        const std::string instance = collector.member("serv").text() + "." + collector.member("res").text() +
                                     " index " + collector.member("index").text();
        const bool whole = collector.has("serv") && collector.has("res") && collector.has("index");
        if (whole && !nameOfInstance.emplace(instance, name).second) {
            findings.error(collector,
                           instance + " belongs to collector " + inQuotes(nameOfInstance[instance]) +
                               " already: this one stays empty",
                           "remove it, and name the first one in every report that needs it");
        }
        const Place on = collector.member("on");
        if (!on.text().empty() && std::find(drivers.begin(), drivers.end(), on.text()) == drivers.end()) {
            const std::string suggestion = didYouMean(on.text(), drivers);
            findings.warning(
                on,
                "no CLOCK or COMPARE is named " + inQuotes(on.text()) + ": the clock drives this collector",
                suggestion.empty() ? "known: " + listed(drivers) : suggestion);
        }
        const Place history = collector.member("history");
        if (history.value->isNumeric() && history.value->asDouble() < 0) {
            findings.warning(history, "is negative: nothing older than the newest record is kept",
                             "write 0 or more");
        }
        if (catalog != nullptr) {
            checkAgainstCatalog(collector, *catalog, findings);
        }
    }
}

}  // namespace

void checkCollectorConfiguration(const Document& document, const CatalogView* catalog, Findings& findings) {
    const Place root = Place::rootOf(document);
    checkConfig(root, findings);
    checkClock(root, findings);
    checkCollectors(root, catalog, findings);
    checkReports(root, findings);
}

}  // namespace vlmCheck
