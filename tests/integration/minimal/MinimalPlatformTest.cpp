// The whole application on another platform: a sample from the vehicle becomes part of an envelope.
#include <gtest/gtest.h>

#include "bus/Publisher.h"
#include "com/Proxy.h"
#include "config/ConfigControlPanel.h"
#include "config/ConfigResponseHandler.h"
#include "qdr/services/gnss/datatypes.h"
#include "qdr/services/gnss/interface.h"
#include "report/VlmDataSubmissionControl.h"
#include "tests/minimal/ScriptedOrxClient.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestCatalog.h"

namespace vlmProd {
namespace {

namespace gnss = qdr::services::gnss;
using vlmTest::eventually;
using vlmTest::ScriptedClient;
using vlmTest::Vehicle;

const char* const kConfiguration = R"({
    "CONFIG": [{"name": "bench", "version": "1"}],
    "CLOCK": [{"name": "minute", "duration": 60000}],
    "REPORT": [{"name": "trip", "application": "fleet", "from": ["positions"]}],
    "COLLECT": [{"name": "positions", "serv": "GNSS", "res": "positions", "index": 1, "history": 60000,
                 "on": "minute"}]})";

const char* const kCatalog =
    R"({"meta": {"vlmVersion": "MinimalCatalog"}, "services": {"GNSS": {"positions": {
    "loadFactor": 10, "serviceId": "0x1101", "someipKeyProperty": "type", "instances": {"1": []}}}}})";

TEST(MinimalPlatform, BringsASampleOfItsVehicleIntoAnEnvelope) {
    vlmTest::LogCapture log;
    vlmTest::haveCatalog(kCatalog);
    Vehicle::instance().offer(gnss::kInterface);
    auto& setup = *ConfigResponseHandler::getInstance();
    auto& submission = *VlmDataSubmissionControl::getInstance();
    submission.initializeServer(
        "MinimalCatalog", {"VLMReport"},
        std::make_shared<ConfigControlPanel>([](auto&&...) { return std::string(); }));
    submission.start();
    kyo::Json::Value configuration;
    ASSERT_TRUE(kyo::Json::Reader().parse(kConfiguration, configuration));
    ASSERT_TRUE(setup.doBaseSetupFromOrxConfigResponse(configuration));
    ASSERT_TRUE(eventually([&] {
        setup.subscribeOnce(setup.configuredResources(), [] {});
        return log.has(5, "Successfully subscribed for the resource positions");
    }));
    ScriptedClient::current().masterControl(vlmTest::control());

    gnss::datatypes::DT_positions_struct sample;
    sample.type = static_cast<decltype(sample.type)::value_type>(1);
    sample.latitude = 48.25;
    const std::vector<gnss::datatypes::DT_positions_struct> samples{sample};
    ASSERT_TRUE(Vehicle::instance().send(gnss::kInterface, gnss::kEvent_positions, samples));
    ASSERT_TRUE(eventually([] { return kyo::Status::counter("records.collected").value() == 1; }));

    Message tick;
    EventPublisher().publishMessage(tick);
    ASSERT_TRUE(eventually([] { return ScriptedClient::current().sends() == 1; },
                           [&] { submission.SendWakeupSignal(); }));
    const auto report = vlmTest::reportIn(ScriptedClient::current().envelopes().front());
    EXPECT_EQ(report["functionId"], "MinimalCatalog");
    EXPECT_EQ(report["signalCollections"][0]["samples"][0]["propertyValuePairs"]["latitude"], 48.25)
        << report;
}

}  // namespace
}  // namespace vlmProd
