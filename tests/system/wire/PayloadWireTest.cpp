/// Every event of every described service, sent by its skeleton through real sockets, decoded member by
/// member by the analyser with the tables that are generated from the same descriptions.
#include <cmath>

#include "Analyser.h"
#include "ac/com/runtime/component.h"
#include "qdr/services/described.h"
#include "tests/integration/someip/Bench.h"

using namespace vlmTest;
using namespace qdr::services;

namespace {

/// A value that the field can have, different from field to field where the type allows.
FieldValue valueFor(const FieldInfo& field, unsigned number) {
    const std::string type = field.type;
    if (!field.enumerators.empty()) {
        return field.enumerators[number % field.enumerators.size()].value;
    }
    if (type == "string") {
        return "text " + std::to_string(number);
    }
    if (type == "bool") {
        return number % 2 == 0;
    }
    if (type == "float" || type == "double") {
        const double span = field.hasRange ? field.maximum - field.minimum : 1000;
        const double value = (field.hasRange ? field.minimum : 0) + span * (1 + number % 7) / 8;
        return std::floor(value * 4) / 4;  // exact in both widths
    }
    const double least = field.hasRange ? field.minimum : 0;
    const double most = field.hasRange ? field.maximum : 100;
    return static_cast<std::int64_t>(std::ceil(least)) +
           static_cast<std::int64_t>(number % 7) % (static_cast<std::int64_t>(most - std::ceil(least)) + 1);
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string attribute(const std::string& element, const std::string& name) {
    const auto start = element.find(" " + name + "=\"");
    if (start == std::string::npos) {
        return "";
    }
    const auto from = start + name.size() + 3;
    return element.substr(from, element.find('"', from) - from);
}

/// The elements of one packet by the name of their field.
std::map<std::string, std::string> elements(const std::string& packet) {
    std::map<std::string, std::string> all;
    for (auto at = packet.find("<field "); at != std::string::npos; at = packet.find("<field ", at + 1)) {
        const auto element = packet.substr(at, packet.find('>', at) - at);
        all[attribute(element, "name")] = element;
    }
    return all;
}

void expectShown(const FieldInfo& field, const FieldValue& sent, const std::string& element,
                 const std::string& name) {
    ASSERT_FALSE(element.empty()) << name << " was not decoded";
    const std::string shown = attribute(element, "show");
    if (const auto* text = std::get_if<std::string>(&sent)) {
        const auto whole = attribute(element, "showname");  // "show" repeats the name of a text
        EXPECT_TRUE(whole.ends_with(*text)) << name << ": " << whole;
    } else if (const auto* flag = std::get_if<bool>(&sent)) {
        EXPECT_EQ(shown, *flag ? "1" : "0") << name;
    } else if (const auto* real = std::get_if<double>(&sent)) {
        EXPECT_DOUBLE_EQ(std::stod(shown), *real) << name;
    } else {
        EXPECT_EQ(shown, std::to_string(std::get<std::int64_t>(sent))) << name << " of " << field.type;
    }
}

}  // namespace

TEST(Payloads, AreDecodedMemberByMemberWithTheGeneratedTables) {
    const LogCapture log{3};
    PlainDevice device(2);
    const ac::com::runtime::Component_singleton component(
        true, "{\"address\": \"" + addressText(1) +
                  "\", \"discovery\": {\"port\": " + std::to_string(discoveryPort()) + "}}");
    const someip::Endpoint discovery{addressOf(1), discoveryPort()};
    Analyser analyser;
    struct Sent {
        std::string service;
        const DescribedEvent* event;
        FieldValues values;
    };
    std::vector<Sent> sent;
    std::vector<std::unique_ptr<DescribedService>> services;
    unsigned number = 0;
    for (const auto& name : describedServiceNames()) {
        services.push_back(makeDescribedService(name));
        services.back()->offer();
        for (auto* const event : services.back()->events()) {
            auto entry = device.offer();
            entry.type = someip::SdEntryType::Subscribe;
            entry.service = services.back()->serviceId();
            entry.eventgroup = event->eventgroupId();
            device.sendDiscovery(entry, &discovery);
            ASSERT_TRUE(eventually([&] { return event->subscribers() == 1; }))
                << name << "." << event->name();
            FieldValues values;
            for (const auto& field : event->fields()) {
                values[field.name] = valueFor(field, ++number);
            }
            ASSERT_TRUE(event->send({values})) << event->error();
            sent.push_back({name, event, values});
            ASSERT_TRUE(eventually([&] {
                const auto count = device.batch.receive(*device.events);
                for (std::size_t i = 0; i < count; ++i) {
                    analyser.add(device.batch.from(i), device.events->endpoint(), device.batch.bytes(i));
                }
                return analyser.count() == sent.size();
            })) << name
                << "." << event->name();
        }
    }
    ASSERT_GE(sent.size(), 10u);

    // The analyser makes its value fields when a table changes after all of them were read: hence the row.
    const auto text = analyser.run(
        "-o "
        "'uat:SOMEIP_parameter_structs:\"fffffff0\",\"unused\",\"32\",\"0\",\"FALSE\",\"1\",\"0\",\"unused\","
        "\"1\",\"00000001\",\"unused\"' -T pdml",
        VLM_WIRESHARK_TABLES);
    std::size_t at = 0;
    for (const auto& one : sent) {
        const auto start = text.find("<packet>", at);
        ASSERT_NE(start, std::string::npos);
        at = text.find("</packet>", start);
        const auto found = elements(text.substr(start, at - start));
        const std::string prefix =
            "someip.payload." + lower(one.service) + "." + lower(one.event->name()) + ".";
        EXPECT_EQ(attribute(found.at("someip.methodname"), "show"), one.event->name());
        for (const auto& [name, element] : found) {
            EXPECT_EQ(name.find("expert"), std::string::npos) << prefix << ": " << element;
            EXPECT_EQ(name.find("unparsed"), std::string::npos) << prefix << ": " << element;
        }
        for (const auto& field : one.event->fields()) {
            const auto name = prefix + lower(field.name);
            const auto element = found.find(name);
            expectShown(field, one.values.at(field.name), element == found.end() ? "" : element->second,
                        name);
        }
    }
    EXPECT_EQ(text.find("<packet>", at), std::string::npos);
}
