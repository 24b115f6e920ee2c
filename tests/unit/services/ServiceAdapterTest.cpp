#include "collect/IngressQueue.h"
#include "services/ProxyNames.h"
#include "services/ServiceMapObjectHandler.h"
#include "services/adapters/ServiceAdapterBase.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

/// An adapter; the test plays its middleware.
class VLMSpring : public ServiceAdapterBase {
  public:
    VLMSpring() : ServiceAdapterBase("VLMSpring", "SpringProxy") {}
    void receive(const char* event) {
        if (const auto resource = resourceOfSample(event)) {
            kyo::Json::Value record = newRecord(event);
            record["kind"] = 2;
            forward(*resource, std::move(record));
        }
    }

    int offeredAtAttempt = 1;
    int attempts = 0;
    std::map<std::string, int> subscriptions;

  private:
    bool findAndConnect() override { return ++attempts == offeredAtAttempt; }
    bool isConnected() const override { return attempts >= offeredAtAttempt; }
    Subscription subscribeEvent(const std::string& event) override {
        ++subscriptions[event];
        return event == "flows"    ? Subscription::Done
               : event == "alarms" ? Subscription::Refused
                                   : Subscription::NoSuchEvent;
    }
};

struct ServiceAdapterTest : Test {
    ServiceAdapterTest() {
        recordsOf("");
        log.clear();
        adapter.setAttemptPause(0ms);
    }

    /// Takes all records from the ingress queue and returns the number of those for that collector.
    static int recordsOf(const std::string& collector) {
        int count = 0;
        for (Record record; IngressQueue::getInstance()->takeRecord(&record);) {
            count += record.collectorName == collector ? 1 : 0;
        }
        return count;
    }

    VLMSpring adapter;
    LogCapture log;
};

TEST_F(ServiceAdapterTest, ConnectsOnceWithinFiveAttempts) {
    adapter.offeredAtAttempt = 9;
    EXPECT_FALSE(adapter.initProxy());
    EXPECT_EQ(adapter.attempts, 5);
    EXPECT_TRUE(adapter.initProxy()) << "and starts again when it is asked again";
    EXPECT_FALSE(adapter.initProxy()) << "no success for a service that is connected";
    EXPECT_THAT(log.messages(5), ElementsAre("Service is allready found, No need to run find service again"));
    EXPECT_EQ(adapter.attempts, 9);
    adapter.attempts = 0;
    EXPECT_FALSE(adapter.initProxy());
    EXPECT_EQ(adapter.attempts, 0)
        << "what was found is not looked for again, even if it is not connected now";

    VLMSpring second;
    second.offeredAtAttempt = 2;
    const auto began = std::chrono::steady_clock::now();
    EXPECT_TRUE(second.initProxy());
    EXPECT_GE(std::chrono::steady_clock::now() - began, 1s);
}

TEST_F(ServiceAdapterTest, SubscribesAnEventOnceAndOnlyWhenConnected) {
    EXPECT_FALSE(adapter.SubscribeResource("flows"));
    adapter.createResourceObject({"flows", "alarms", "tides"});
    EXPECT_FALSE(adapter.SubscribeResource("flows"));
    ASSERT_TRUE(adapter.initProxy());
    EXPECT_TRUE(adapter.SubscribeResource("flows"));
    EXPECT_TRUE(adapter.isSubscribed("flows"));
    EXPECT_TRUE(adapter.SubscribeResource("flows"));
    EXPECT_EQ(adapter.subscriptions["flows"], 1);
    for (const char* const event : {"alarms", "tides"}) {
        EXPECT_FALSE(adapter.SubscribeResource(event));
        EXPECT_FALSE(adapter.isSubscribed(event));
    }
    adapter.createResourceObject({"flows"});
    EXPECT_FALSE(adapter.isSubscribed("flows")) << "another resource is in its place";
    EXPECT_THAT(log.messages(4), ElementsAre("Allready subscribed for resource object flows"));
    EXPECT_THAT(log.messages(3), ElementsAre("Didn't find the resource object for flows",
                                             "proxy is null, hence can not go ahead with subscription",
                                             "The middleware refused the subscription of alarms",
                                             "The service SpringProxy has no event 'tides'"));
}

TEST_F(ServiceAdapterTest, NamesAResourceThatDoesNotExist) {
    adapter.receive("flows");
    EXPECT_TRUE(log.has(3, "Resource ptr is null for resource flows"));
    EXPECT_THAT(log.lines().front().text,
                StartsWith("void vlmProd::VLMSpring::callback_flows("
                           "std::vector<qdr::services::spring::datatypes::DT_flows_struct>):"));
    EXPECT_FALSE(adapter.SubscribeResource("flows")) << "the empty entry that was left is no resource";
    EXPECT_FALSE(adapter.isSubscribed("flows"));
    adapter.setCollectorName("SpringProxy", "flows", 1, "c");
    adapter.setSomeIPKey("flows", "k");
    std::vector<std::string> names{"kind"};
    adapter.setSomeIPIndexAttribute("flows", 1, names);
    adapter.addProperties("flows", names);
    EXPECT_EQ(log.count(3, "Resource flows does not exist"), 5U);
}

TEST(Registry, AnswersAnUnknownServiceWithItsMessage) {
    const std::string name(proxyNames::RouteBasedConsumptionProxy);
    ServiceMapObjectHandler registry{ServiceMapObjectHandler::Adapters{{"SpringProxy", nullptr}}};
    const LogCapture log;
    std::vector<std::string> names;
    EXPECT_THAT(proxyNames::all, AllOf(SizeIs(52), Each(EndsWith(proxyNames::kSuffix))));
    EXPECT_FALSE(registry.findService(name));
    EXPECT_EQ(registry.getServiceObject(name), nullptr);
    registry.createResourceObject(name, {"r"});
    registry.addAttributesToResource(name, "r", {"a"});
    registry.setSomeIPKey(name, "r", "k");
    registry.setSomeIPIndexAttribute(name, "r", 1, names);
    registry.setCollectorName(name, "r", 1, "c");
    EXPECT_FALSE(registry.SubscribeResource(name, "r"));
    EXPECT_FALSE(registry.isResourceSubscribed(name, "r"));
    registry.RunOnThread();
    EXPECT_TRUE(log.has(5, "Starting to run on thread"));
    const auto missed = "Didn't find service " + name + "in the map";
    const auto creating = "Error in creating resource, service " + name + " not found in the list";
    const auto getting = "Error in getting service object for service " + name + ". not found in the map";
    EXPECT_THAT(log.messages(3),
                ElementsAre(missed, missed, creating, creating, getting, getting, missed, getting, getting));
}

// The middleware delivers while the configuration's thread creates resources and sets names.
TEST_F(ServiceAdapterTest, ReceivesWhileItIsConfigured) {
    adapter.createResourceObject({"flows"});
    adapter.setSomeIPKey("flows", "kind");
    adapter.setCollectorName("SpringProxy", "flows", 2, "springs");
    std::vector<std::string> names{"kind"};
    std::thread configuration([&] {
        for (int i = 3; i < 500; ++i) {
            adapter.createResourceObject({"extra" + std::to_string(i)});
            adapter.setCollectorName("SpringProxy", "flows", i, "c");
            adapter.setSomeIPIndexAttribute("flows", i, names);
            adapter.addProperties("flows", names);
            adapter.setSomeIPKey("flows", "kind");
            adapter.isSubscribed("flows");
        }
    });
    for (int i = 0; i < 500; ++i) {
        adapter.receive("flows");
        adapter.receive("alarms");
    }
    configuration.join();
    EXPECT_EQ(recordsOf("springs"), 500);
    EXPECT_FALSE(log.has(3, "Resource flows does not exist"));
}

}  // namespace
