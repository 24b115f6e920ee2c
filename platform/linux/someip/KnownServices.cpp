#include "someip/KnownServices.h"

#include <cstdio>

namespace someip {

namespace {

std::string hex(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04x", value);
    return text;
}

}  // namespace

std::string KnownServices::describe(const ServiceKey& service) {
    const Service* const known = find(service.service);
    return (known == nullptr ? std::string() : known->name + " ") + "(" + hex(service.service) +
           ", instance " + std::to_string(service.instance) + ", version " + std::to_string(service.major) +
           ")";
}

std::string KnownServices::describe(const EventgroupKey& eventgroup) {
    return "Eventgroup " + hex(eventgroup.eventgroup) + " of service " + describe(eventgroup.service);
}

}  // namespace someip
