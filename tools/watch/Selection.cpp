#include "tools/watch/Selection.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "tools/check/Suggest.h"

namespace vlmWatch {

using qdr::services::DescribedEvent;
using qdr::services::DescribedService;
using qdr::services::IndexInfo;

namespace {

bool same(const std::string& left, const std::string& right) {
    return left.size() == right.size() && vlmCheck::editDistance(left, right) == 0;
}

[[noreturn]] void refuse(const std::string& text, const std::string& reason) {
    throw std::runtime_error("\"" + text + "\": " + reason);
}

/// "; did you mean "GNSS"?", or else `otherwise`.
std::string hint(const std::string& name, const std::vector<std::string>& known,
                 const std::string& otherwise) {
    const std::string near = vlmCheck::didYouMean(name, known);
    return "; " + (near.empty() ? otherwise : near);
}

DescribedService& serviceOf(const std::string& text, const std::string& name, const Services& services) {
    std::vector<std::string> names;
    for (const auto& service : services) {
        if (same(name, service->name()) || same(name, service->name() + "Proxy")) {
            return *service;
        }
        names.push_back(service->name());
    }
    refuse(text, "no service is called \"" + name + "\"" +
                     hint(name, names, "known are " + vlmCheck::listed(names)));
}

DescribedEvent& eventOf(const std::string& text, const std::string& name, DescribedService& service) {
    std::vector<std::string> names;
    for (auto* const event : service.events()) {
        if (same(name, event->name())) {
            return *event;
        }
        names.push_back(event->name());
    }
    refuse(text, service.name() + " has no event \"" + name + "\"" +
                     hint(name, names, "it has " + vlmCheck::listed(names)));
}

std::optional<std::int64_t> indexOf(const std::string& name, const DescribedEvent& event) {
    std::int64_t number = 0;
    const auto [end, fault] = std::from_chars(name.data(), name.data() + name.size(), number);
    const bool isNumber = fault == std::errc() && end == name.data() + name.size();
    for (const IndexInfo& index : event.indexes()) {
        if (isNumber ? index.value == number : same(name, index.name)) {
            return index.value;
        }
    }
    return std::nullopt;
}

std::vector<std::string> indexNames(const std::vector<DescribedEvent*>& events, bool withNumbers) {
    std::vector<std::string> names;
    for (const auto* const event : events) {
        for (const IndexInfo& index : event->indexes()) {
            const std::string number = std::to_string(index.value);
            const std::string name = index.name;
            if (std::string text = !withNumbers   ? name
                                   : name.empty() ? number
                                                  : number + " (" + name + ")";
                !text.empty() && std::ranges::find(names, text) == names.end()) {
                names.push_back(std::move(text));
            }
        }
    }
    return names;
}

/// An event that is selected twice has the indexes of both selections.
void add(std::vector<Selected>& all, DescribedService& service, DescribedEvent& event,
         std::optional<std::int64_t> index) {
    const auto known = std::ranges::find(all, &event, &Selected::event);
    if (known == all.end()) {
        all.push_back({&service, &event, index ? std::set{*index} : std::set<std::int64_t>()});
    } else if (!index) {
        known->indexes.clear();
    } else if (!known->indexes.empty()) {
        known->indexes.insert(*index);
    }
}

void addSelection(std::vector<Selected>& all, const std::string& text, const Services& services) {
    const auto colon = text.find(':');
    const std::string path = text.substr(0, colon);
    const auto point = path.find('.');
    const std::string serviceName = path.substr(0, point);
    if (serviceName.empty() || point + 1 == path.size() ||
        (colon != std::string::npos && colon + 1 == text.size())) {
        refuse(text, "SERVICE[.event][:index] is expected");
    }
    DescribedService& service = serviceOf(text, serviceName, services);
    const auto events = point == std::string::npos
                            ? service.events()
                            : std::vector{&eventOf(text, path.substr(point + 1), service)};
    if (colon == std::string::npos) {
        for (auto* const event : events) {
            add(all, service, *event, std::nullopt);
        }
        return;
    }
    const std::string indexName = text.substr(colon + 1);
    bool found = false;
    for (auto* const event : events) {
        if (const auto index = indexOf(indexName, *event)) {
            add(all, service, *event, index);
            found = true;
        }
    }
    if (!found) {
        refuse(text, path + " has no index \"" + indexName + "\"" +
                         hint(indexName, indexNames(events, false),
                              "it has " + vlmCheck::listed(indexNames(events, true))));
    }
}

}  // namespace

Services describedServices() {
    Services services;
    for (const auto& name : qdr::services::describedServiceNames()) {
        services.push_back(qdr::services::makeDescribedService(name));
    }
    return services;
}

std::vector<Selected> select(const std::vector<std::string>& texts, const Services& services) {
    std::vector<Selected> all;
    for (const auto& text : texts) {
        addSelection(all, text, services);
    }
    if (texts.empty()) {
        for (const auto& service : services) {
            for (auto* const event : service->events()) {
                add(all, *service, *event, std::nullopt);
            }
        }
    }
    return all;
}

}  // namespace vlmWatch
