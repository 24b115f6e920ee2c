#include "tools/watch/Offers.h"

#include <algorithm>
#include <cstdio>

#include "json/JsonFields.h"
#include "kyo/Json.h"
#include "someip/Endpoint.h"
#include "tools/watch/Text.h"

namespace vlmWatch {

using qdr::services::DescribedService;
using someip::RemoteService;

namespace {

const DescribedService* describedOf(const RemoteService& offer, const Services& services) {
    const auto found = std::ranges::find_if(
        services, [&](const auto& service) { return service->serviceId() == offer.key.service; });
    return found == services.end() ? nullptr : found->get();
}

bool isSelected(const DescribedService& service, const std::vector<Selected>& selection) {
    return std::ranges::any_of(selection, [&](const Selected& one) { return one.service == &service; });
}

std::string endpointsOf(const RemoteService& offer) {
    std::string text;
    for (const auto& endpoint : offer.endpoints) {
        text += (text.empty() ? "" : ", ") + someip::toText(endpoint);
    }
    return text;
}

struct Row {
    const RemoteService* offer;
    const DescribedService* service;  ///< nullptr for one without a description
};

/// By name; those without a description last.
std::vector<Row> rowsOf(const std::vector<RemoteService>& offers, const std::vector<Selected>& selection,
                        const Services& services, bool all) {
    std::vector<Row> rows;
    for (const RemoteService& offer : offers) {
        const auto* const service = describedOf(offer, services);
        if (service == nullptr ? all : isSelected(*service, selection)) {
            rows.push_back({&offer, service});
        }
    }
    std::ranges::stable_sort(rows, [](const Row& left, const Row& right) {
        if (left.service == nullptr || right.service == nullptr) {
            return left.service != nullptr && right.service == nullptr;
        }
        return left.service->name() < right.service->name();
    });
    return rows;
}

std::string line(const char* name, int width, const char* id, const std::string& instance,
                 const std::string& version, const std::string& peer, const std::string& endpoints) {
    char text[512];
    const int size = std::snprintf(text, sizeof text, "%-*s  %6s  %8s  %8s  %-21s  %s", width, name, id,
                                   instance.c_str(), version.c_str(), peer.c_str(), endpoints.c_str());
    return std::string(text, std::min(static_cast<std::size_t>(size), sizeof text - 1));
}

}  // namespace

std::string offersText(const std::vector<RemoteService>& offers, const std::vector<Selected>& selection,
                       const Services& services, bool all, bool explain) {
    const auto rows = rowsOf(offers, selection, services, all);
    int width = 14;
    for (const Row& row : rows) {
        width = std::max(width, row.service == nullptr ? 0 : static_cast<int>(row.service->name().size()));
    }
    std::string text;
    if (!rows.empty()) {
        text = line("service", width, "id", "instance", "version", "offered by", "events from") + '\n';
    }
    for (const auto& [offer, service] : rows) {
        char id[8];
        std::snprintf(id, sizeof id, "0x%04x", static_cast<unsigned>(offer->key.service));
        text += line(service == nullptr ? "(no description)" : service->name().c_str(), width, id,
                     std::to_string(offer->key.instance),
                     std::to_string(offer->key.major) + "." + std::to_string(offer->minor),
                     someip::toText(offer->peer), endpointsOf(*offer));
        if (service != nullptr && service->interface().majorVersion != offer->key.major) {
            text += "  described is version " + std::to_string(service->interface().majorVersion);
        }
        text += '\n';
    }
    std::string missing;
    for (const auto& service : services) {
        if (isSelected(*service, selection) &&
            std::ranges::none_of(rows, [&](const Row& row) { return row.service == service.get(); })) {
            missing += (missing.empty() ? "" : ", ") + service->name();
        }
    }
    if (!missing.empty()) {
        text += "nobody offers " + missing + '\n';
    }
    const DescribedService* previous = nullptr;
    for (const Selected& one : selection) {
        if (explain && one.service != previous) {
            text += "\n" + one.service->name() + ": " + one.service->summary() + '\n';
            previous = one.service;
        }
        text += explain ? explained(one) : "";
    }
    return text;
}

std::string offersJson(const std::vector<RemoteService>& offers, const std::vector<Selected>& selection,
                       const Services& services, bool all) {
    using kyo::Json::Value;
    std::string text;
    for (const auto& [offer, service] : rowsOf(offers, selection, services, all)) {
        Value object(kyo::Json::objectValue);
        object["service"] = service == nullptr ? Value() : Value(service->name());
        object["id"] = Value(static_cast<kyo::Json::UInt64>(offer->key.service));
        object["instance"] = Value(static_cast<kyo::Json::UInt64>(offer->key.instance));
        object["majorVersion"] = Value(static_cast<kyo::Json::UInt64>(offer->key.major));
        object["minorVersion"] = Value(static_cast<kyo::Json::UInt64>(offer->minor));
        object["peer"] = Value(someip::toText(offer->peer));
        Value& endpoints = object["endpoints"] = Value(kyo::Json::arrayValue);
        for (const auto& endpoint : offer->endpoints) {
            endpoints.append(Value(someip::toText(endpoint)));
        }
        text += vlmProd::compactText(object) + '\n';
    }
    return text;
}

}  // namespace vlmWatch
