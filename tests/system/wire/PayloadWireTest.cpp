/// Every event of every described service, sent by its skeleton through real sockets and decoded member by
/// member by the analyser, with tables generated from the same descriptions.
#include "Analyser.h"
#include "ac/com/runtime/component.h"
#include "qdr/services/described.h"
#include "tests/integration/someip/Bench.h"
#include "tests/support/FieldValues.h"

using namespace vlmTest;
using namespace qdr::services;

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

void expectShown(const FieldInfo& field, const FieldValue& sent, const AnalysedElement& element) {
    if (const auto* text = std::get_if<std::string>(&sent)) {
        EXPECT_TRUE(element.text.ends_with(*text)) << element.text;  // "show" repeats the name of a text
    } else if (const auto* flag = std::get_if<bool>(&sent)) {
        EXPECT_EQ(element.show, *flag ? "1" : "0");
    } else if (const auto* real = std::get_if<double>(&sent)) {
        EXPECT_DOUBLE_EQ(std::stod(element.show), *real);
    } else {
        EXPECT_EQ(element.show, std::to_string(std::get<std::int64_t>(sent))) << field.type;
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
            device.sendDiscovery(device.subscription(services.back()->serviceId(), event->eventgroupId()),
                                 &discovery);
            ASSERT_TRUE(eventually([&] { return event->subscribers() == 1; }))
                << name << "." << event->name();
            FieldValues values;
            for (const auto& field : event->fields()) {
                values[field.name] = valueFor(field, ++number);
            }
            ASSERT_TRUE(event->send({values})) << event->error();
            sent.push_back({name, event, values});
            ASSERT_TRUE(eventually([&] {
                device.receive(*device.events, [&](auto&&, auto bytes) { analyser.add(bytes); });
                return analyser.count() == sent.size();
            })) << name
                << "." << event->name();
        }
    }
    ASSERT_GE(sent.size(), 10u);

    auto frames = analyser.frames(VLM_WIRESHARK_TABLES);
    ASSERT_EQ(frames.size(), sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        const auto& one = sent[i];
        const std::string prefix =
            "someip.payload." + lower(one.service) + "." + lower(one.event->name()) + ".";
        SCOPED_TRACE(prefix);
        EXPECT_EQ(frames[i].at("someip.methodname").show, one.event->name());
        for (const auto& [name, element] : frames[i]) {
            EXPECT_THAT(name, Not(testing::ContainsRegex("expert|unparsed"))) << element.text;
        }
        for (const auto& field : one.event->fields()) {
            SCOPED_TRACE(field.name);
            expectShown(field, one.values.at(field.name), frames[i].at(prefix + lower(field.name)));
        }
    }
}
