#include "services/adapters/ServiceAdapter.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/JsonFields.h"
#include "collect/IngressQueue.h"
#include "kyo/DateTime.h"
#include "services/Resource.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordValue.h"

namespace vlmProd {

/// A service of the test's own: what the generator makes for a real one, over a proxy that the test drives.
namespace spring {

enum class Kind : std::uint8_t { Tap = 1, Spring = 2 };

struct DT_flows_struct {
    eb::com::optional<Kind> kind;
    eb::com::optional<double> flow;
    eb::com::optional<std::uint8_t> quality;
    eb::com::optional<std::int16_t> trend;
};
struct DT_alarms_struct {
    eb::com::optional<std::uint32_t> type;
    eb::com::optional<bool> isActive;
    eb::com::optional<std::string> text;
};

template <class DT>
class Event {
  public:
    bool Subscribe(std::function<void(std::vector<DT>)> given) {
        ++subscriptions;
        handler = std::move(given);
        return accepts;
    }
    int subscriptions = 0;
    bool accepts = true;
    std::function<void(std::vector<DT>)> handler;
};

class SpringProxy {
  public:
    static int offeredAtAttempt;  ///< 0: never
    static int attempts;
    static std::string askedInstance;
    static SpringProxy* current;

    static ac::com::HandleContainer FindService(const std::string& instance) {
        askedInstance = instance;
        if (++attempts != offeredAtAttempt) {
            return {};
        }
        return {ac::com::ServiceHandle{0x1101, 7, 1}, ac::com::ServiceHandle{0x1101, 8, 1}};
    }
    explicit SpringProxy(const ac::com::ServiceHandle& handle) : instance(handle.instanceId) {
        current = this;
    }

    const int instance;
    Event<DT_flows_struct> flows;
    Event<DT_alarms_struct> alarms;
};

int SpringProxy::offeredAtAttempt = 0;
int SpringProxy::attempts = 0;
std::string SpringProxy::askedInstance;
SpringProxy* SpringProxy::current = nullptr;

}  // namespace spring

class VLMSpring : public ServiceAdapter<VLMSpring, spring::SpringProxy> {
  public:
    static constexpr const char* kClassName = "VLMSpring";
    explicit VLMSpring(std::string name) : ServiceAdapter(std::move(name)) {}

    template <typename Visitor>
    static bool visitEvents(Visitor&& visit) {
        return visit("flows", &Proxy::flows, &VLMSpring::callback_flows) ||
               visit("alarms", &Proxy::alarms, &VLMSpring::callback_alarms);
    }
    void callback_flows(std::vector<spring::DT_flows_struct> samples) {
        receiveSamples(samples, "flows", [](const auto& sample, kyo::Json::Value& record) {
            if (putKey(record, kyo::Json::StaticString("kind"), sample.kind).value_or(-1) == 2) {
                putField(record, kyo::Json::StaticString("flow"), sample.flow);
                putField(record, kyo::Json::StaticString("quality"), sample.quality);
                putField(record, kyo::Json::StaticString("trend"), sample.trend);
            }
        });
    }
    void callback_alarms(std::vector<spring::DT_alarms_struct> samples) {
        receiveSamples(samples, "alarms", [](const auto& sample, kyo::Json::Value& record) {
            putField(record, kyo::Json::StaticString("type"), sample.type);
            putField(record, kyo::Json::StaticString("isActive"), sample.isActive);
            putField(record, kyo::Json::StaticString("text"), sample.text);
        });
    }
};

namespace {

using kyo::Json::Value;
using spring::DT_alarms_struct;
using spring::DT_flows_struct;
using spring::Kind;
using spring::SpringProxy;
using testing::ElementsAre;
using testing::IsEmpty;
using vlmTest::LogCapture;

class ServiceAdapterTest : public testing::Test {
  protected:
    ServiceAdapterTest() {
        SpringProxy::offeredAtAttempt = 1;
        SpringProxy::attempts = 0;
        SpringProxy::current = nullptr;
        adapter.setAttemptPause(std::chrono::milliseconds(0));
        records();
    }

    /// The records that have reached the ingress queue, as text and without their time stamps.
    static std::vector<std::string> records() {
        std::vector<std::string> texts;
        TextedRecord record;
        while (IngressQueue::getInstance()->takeRecord(&record)) {
            Value value = vlmTest::valueOf(record);
            EXPECT_TRUE(value["timestamp"].isUInt64());
            value.removeMember("timestamp");
            texts.push_back(compactText(value));
        }
        return texts;
    }

    VLMSpring adapter{"SpringProxy"};
};

TEST_F(ServiceAdapterTest, ConnectsToTheFirstInstanceFound) {
    SpringProxy::offeredAtAttempt = 4;
    EXPECT_TRUE(adapter.initProxy());
    EXPECT_EQ(SpringProxy::attempts, 4);
    EXPECT_EQ(SpringProxy::askedInstance, "*");
    ASSERT_NE(SpringProxy::current, nullptr);
    EXPECT_EQ(SpringProxy::current->instance, 7);

    LogCapture log;
    EXPECT_FALSE(adapter.initProxy()) << "no success for a service that is connected";
    EXPECT_THAT(log.messages(5), ElementsAre("Service is allready found, No need to run find service again"));
    EXPECT_EQ(log.lines().front().signature, "virtual bool vlmProd::VLMSpring::initProxy()");
    EXPECT_EQ(SpringProxy::attempts, 4);
}

TEST_F(ServiceAdapterTest, GivesUpAfterFiveAttempts) {
    SpringProxy::offeredAtAttempt = 6;
    EXPECT_FALSE(adapter.initProxy());
    EXPECT_EQ(SpringProxy::attempts, 5);
    EXPECT_TRUE(adapter.initProxy()) << "and starts again when it is asked again";
}

TEST_F(ServiceAdapterTest, SubscribesAnEventOnceAndOnlyWhenConnected) {
    LogCapture log;
    EXPECT_FALSE(adapter.SubscribeResource("flows"));
    EXPECT_TRUE(log.has(3, "Didn't find the resource object for flows"));
    adapter.createResourceObject({"flows", "alarms", "tides"});
    EXPECT_TRUE(log.has(5, "Creating resource object for tides"));
    EXPECT_FALSE(adapter.SubscribeResource("flows"));
    EXPECT_TRUE(log.has(3, "proxy is null, hence can not go ahead with subscription"));
    EXPECT_FALSE(adapter.isSubscribed("flows"));

    ASSERT_TRUE(adapter.initProxy());
    EXPECT_TRUE(adapter.SubscribeResource("flows"));
    EXPECT_TRUE(adapter.isSubscribed("flows"));
    EXPECT_FALSE(adapter.isSubscribed("alarms"));
    EXPECT_TRUE(adapter.SubscribeResource("flows"));
    EXPECT_TRUE(log.has(4, "Allready subscribed for resource object flows"));
    EXPECT_EQ(SpringProxy::current->flows.subscriptions, 1);
    EXPECT_EQ(SpringProxy::current->alarms.subscriptions, 0);

    EXPECT_FALSE(adapter.SubscribeResource("tides")) << "the service has no such event";
    EXPECT_FALSE(adapter.isSubscribed("tides"));
    SpringProxy::current->alarms.accepts = false;
    EXPECT_FALSE(adapter.SubscribeResource("alarms"));
    EXPECT_FALSE(adapter.isSubscribed("alarms"));
}

TEST_F(ServiceAdapterTest, MakesARecordOfEachSampleInOrder) {
    adapter.createResourceObject({"flows"});
    adapter.setSomeIPKey("flows", "kind");
    adapter.setCollectorName("SpringProxy", "flows", 2, "springs");
    ASSERT_TRUE(adapter.initProxy());
    ASSERT_TRUE(adapter.SubscribeResource("flows"));
    SpringProxy::current->flows.handler(
        {DT_flows_struct{Kind::Spring, 2.5, std::uint8_t{200}, std::int16_t{-4}},
         DT_flows_struct{Kind::Tap, 1.5, {}, {}},
         DT_flows_struct{Kind::Spring, std::numeric_limits<double>::quiet_NaN(), {}, std::int16_t{3}},
         DT_flows_struct{{}, 9.0, {}, {}}});
    EXPECT_THAT(records(),
                ElementsAre(R"({"collectorName":"springs","flow":2.5,"index":2,"kind":2,"quality":200,)"
                            R"("resName":"flows","serviceName":"SpringProxy","trend":-4})",
                            R"({"kind":1,"resName":"flows","serviceName":"SpringProxy"})",
                            R"({"collectorName":"springs","index":2,"kind":2,"resName":"flows",)"
                            R"("serviceName":"SpringProxy","trend":3})",
                            R"({"resName":"flows","serviceName":"SpringProxy"})"));
}

TEST_F(ServiceAdapterTest, WritesTheFieldsOfAnEventWithoutWriters) {
    adapter.createResourceObject({"alarms"});
    const auto before = kyo::DateTime::getCurrentTimeMs();
    adapter.callback_alarms({DT_alarms_struct{4294967295U, false, "dry"}, DT_alarms_struct{}});
    TextedRecord taken;
    ASSERT_TRUE(IngressQueue::getInstance()->takeRecord(&taken));
    const Value first = vlmTest::valueOf(taken);
    EXPECT_GE(first["timestamp"].asUInt64(), before);
    EXPECT_EQ(first["type"].asUInt(), 4294967295U);
    EXPECT_EQ(first["isActive"], Value(false));
    EXPECT_EQ(first["text"], Value("dry"));
    EXPECT_THAT(records(), ElementsAre(R"({"resName":"alarms","serviceName":"SpringProxy"})"));
}

TEST_F(ServiceAdapterTest, SkipsSamplesWithoutAResourceAndLeavesAnEmptyEntryBehind) {
    LogCapture log;
    adapter.callback_flows({DT_flows_struct{Kind::Tap, {}, {}, {}}, DT_flows_struct{Kind::Tap, {}, {}, {}}});
    EXPECT_EQ(log.count(3, "Resource ptr is null for resource flows"), 2U);
    EXPECT_EQ(log.lines().front().signature,
              "void vlmProd::VLMSpring::callback_flows(std::vector<qdr::services::spring::datatypes::"
              "DT_flows_struct>)");
    EXPECT_THAT(records(), IsEmpty());
    EXPECT_FALSE(adapter.SubscribeResource("flows")) << "an empty entry is no resource";
    EXPECT_FALSE(adapter.isSubscribed("flows"));
}

TEST_F(ServiceAdapterTest, NamesAResourceThatDoesNotExist) {
    std::vector<std::string> names{"n"};
    LogCapture log;
    EXPECT_FALSE(adapter.isSubscribed("tides"));
    adapter.setCollectorName("SpringProxy", "tides", 1, "c");
    adapter.setSomeIPKey("tides", "k");
    adapter.setSomeIPIndexAttribute("tides", 1, names);
    adapter.addProperties("tides", names);
    EXPECT_EQ(log.count(3, "Resource tides does not exist"), 5U);
}

TEST_F(ServiceAdapterTest, AddsPropertiesByReferenceOnlyTheByValueOperationDoesNothing) {
    adapter.createResourceObject({"flows"});
    LogCapture log;
    BaseServiceObject& base = adapter;
    base.addProperties("flows", std::vector<std::string>{"a", "b"});
    EXPECT_THAT(log.messages(), IsEmpty());
    std::vector<std::string> names{"a", "b"};
    adapter.addProperties("flows", names);
    EXPECT_THAT(log.messages(5), ElementsAre("Size of Attributes = 2"));
}

// The middleware delivers while the configuration thread creates resources and sets names.
TEST_F(ServiceAdapterTest, ReceivesWhileItIsConfigured) {
    adapter.createResourceObject({"flows"});
    adapter.setSomeIPKey("flows", "kind");
    std::thread configuration([&] {
        for (int i = 0; i < 500; ++i) {
            adapter.createResourceObject({"extra" + std::to_string(i)});
            adapter.setCollectorName("SpringProxy", "flows", i, "c");
            adapter.isSubscribed("flows");
        }
    });
    for (int i = 0; i < 500; ++i) {
        adapter.callback_flows({DT_flows_struct{Kind::Spring, 1.0, {}, {}}});
        adapter.callback_alarms({DT_alarms_struct{}});
    }
    configuration.join();
    EXPECT_EQ(records().size(), 500U);
}

}  // namespace
}  // namespace vlmProd
