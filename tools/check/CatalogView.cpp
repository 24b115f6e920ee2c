#include "tools/check/CatalogView.h"

#include <stdexcept>

namespace vlmCheck {

bool readInstanceId(const std::string& text, int& id) {
    try {
        id = std::stoi(text);
        return true;
    } catch (const std::logic_error&) {  // no number, or outside int
        return false;
    }
}

CatalogView::CatalogView(const Document& document) {
    const Place services = Place::rootOf(document).member("services");
    if (!services.value->isObject()) {
        return;
    }
    for (const auto& serviceName : services.value->getMemberNames()) {
        auto& resources = m_services[serviceName];
        const Place service = services.member(serviceName);
        if (!service.value->isObject()) {
            continue;
        }
        for (const auto& resourceName : service.value->getMemberNames()) {
            Resource& resource = resources[resourceName];
            const Place described = service.member(resourceName);
            resource.key = described.member("someipKeyProperty").text();
            const Place instances = described.member("instances");
            if (!instances.value->isObject()) {
                continue;
            }
            for (const auto& id : instances.value->getMemberNames()) {
                if (int number = 0; readInstanceId(id, number)) {
                    resource.instances.insert(number);
                }
            }
        }
    }
}

std::optional<CatalogView> CatalogView::read(const std::string& file, std::string& problem) {
    Document document;
    std::vector<Finding> findings;
    if (!readDocument(file, document, findings)) {
        problem = file + " " + findings.front().reason;
        return std::nullopt;
    }
    return CatalogView(document);
}

std::vector<std::string> CatalogView::services() const {
    std::vector<std::string> names;
    for (const auto& [name, resources] : m_services) {
        names.push_back(name);
    }
    return names;
}

std::vector<std::string> CatalogView::resources(const std::string& service) const {
    std::vector<std::string> names;
    if (const auto found = m_services.find(service); found != m_services.end()) {
        for (const auto& [name, resource] : found->second) {
            names.push_back(name);
        }
    }
    return names;
}

bool CatalogView::hasResource(const std::string& service, const std::string& resource) const {
    const auto found = m_services.find(service);
    return found != m_services.end() && found->second.count(resource) != 0;
}

std::set<int> CatalogView::instances(const std::string& service, const std::string& resource) const {
    return hasResource(service, resource) ? m_services.at(service).at(resource).instances : std::set<int>();
}

std::string CatalogView::keyProperty(const std::string& service, const std::string& resource) const {
    return hasResource(service, resource) ? m_services.at(service).at(resource).key : std::string();
}

std::vector<std::string> CatalogView::servicesWith(const std::string& resource) const {
    std::vector<std::string> names;
    for (const auto& [name, resources] : m_services) {
        if (resources.count(resource) != 0) {
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace vlmCheck
