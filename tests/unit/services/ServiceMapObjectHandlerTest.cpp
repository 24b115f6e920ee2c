#include "services/ServiceMapObjectHandler.h"

#include <gmock/gmock.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "services/ProxyNames.h"
#include "tests/support/LogCapture.h"

namespace vlmProd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::StrictMock;
using vlmTest::LogCapture;

class Adapter : public BaseServiceObject {
  public:
    MOCK_METHOD(bool, initProxy, (), (override));
    MOCK_METHOD(bool, SubscribeResource, (std::string), (override));
    MOCK_METHOD(void, createResourceObject, (std::vector<std::string>), (override));
    MOCK_METHOD(void, addProperties, (std::string, std::vector<std::string>), (override));
    MOCK_METHOD(bool, isSubscribed, (std::string), (override));
    MOCK_METHOD(void, setSomeIPKey, (std::string, std::string), (override));
    MOCK_METHOD(void, setSomeIPIndexAttribute, (std::string, int, std::vector<std::string>&), (override));
    MOCK_METHOD(void, setCollectorName, (std::string, std::string, int, std::string), (override));
};

class Registry : public testing::Test {
  protected:
    const std::shared_ptr<StrictMock<Adapter>> adapter = std::make_shared<StrictMock<Adapter>>();
    ServiceMapObjectHandler registry{
        ServiceMapObjectHandler::Adapters{{"RouterBasedConsumptionProxy", adapter}}};
    const std::string known = "RouterBasedConsumptionProxy";
};

TEST_F(Registry, HandsEachRequestToTheNamedServicesAdapter) {
    std::vector<std::string> names{"n1", "n2"};
    EXPECT_CALL(*adapter, initProxy()).Times(2).WillOnce(Return(true)).WillOnce(Return(false));
    EXPECT_CALL(*adapter, createResourceObject(ElementsAre("r1", "r2")));
    EXPECT_CALL(*adapter, addProperties("r", ElementsAre("n1", "n2")));
    EXPECT_CALL(*adapter, setSomeIPKey("r", "k"));
    EXPECT_CALL(*adapter, setSomeIPIndexAttribute("r", 7, testing::Ref(names)));
    EXPECT_CALL(*adapter, setCollectorName(known, "r", 7, "c")).Times(1);
    EXPECT_CALL(*adapter, SubscribeResource("r")).WillOnce(Return(true));
    EXPECT_CALL(*adapter, isSubscribed("r")).WillOnce(Return(true));
    EXPECT_TRUE(registry.findService(known));
    EXPECT_FALSE(registry.findService(known)) << "asked every time, and its answer is passed on";
    EXPECT_EQ(registry.getServiceObject(known), adapter);
    registry.createResourceObject(known, {"r1", "r2"});
    registry.addAttributesToResource(known, "r", names);
    registry.setSomeIPKey(known, "r", "k");
    registry.setSomeIPIndexAttribute(known, "r", 7, names);
    registry.setCollectorName(known, "r", 7, "c");
    EXPECT_TRUE(registry.SubscribeResource(known, "r"));
    EXPECT_TRUE(registry.isResourceSubscribed(known, "r"));
}

TEST_F(Registry, AnswersAnUnknownServiceWithItsMessage) {
    std::vector<std::string> names{"n"};
    for (const std::string name : {"RouteBasedConsumptionProxy", "", "routerbasedconsumptionproxy",
                                   "RouterBasedConsumptionProxy ", "DisplaySpeedProxy"}) {
        LogCapture log;
        EXPECT_FALSE(registry.findService(name));
        EXPECT_EQ(registry.getServiceObject(name), nullptr);
        registry.setCollectorName(name, "r", 1, "c");
        registry.setSomeIPKey(name, "r", "k");
        registry.setSomeIPIndexAttribute(name, "r", 1, names);
        EXPECT_FALSE(registry.SubscribeResource(name, "r"));
        EXPECT_FALSE(registry.isResourceSubscribed(name, "r"));
        registry.createResourceObject(name, {"r"});
        registry.addAttributesToResource(name, "r", names);
        const std::string notFound = "Didn't find service " + name + "in the map";
        const std::string gettingFailed =
            "Error in getting service object for service " + name + ". not found in the map";
        const std::string creatingFailed =
            "Error in creating resource, service " + name + " not found in the list";
        EXPECT_THAT(log.messages(3),
                    ElementsAre(notFound, notFound, notFound, gettingFailed, gettingFailed, gettingFailed,
                                gettingFailed, creatingFailed, creatingFailed));
    }
}

TEST_F(Registry, RunsNothingOnAThread) {
    LogCapture log;
    registry.RunOnThread();
    EXPECT_THAT(log.messages(5), ElementsAre("Starting to run on thread"));
}

TEST(BaseServiceObject, DoesNothingAndReportsNoSuccess) {
    BaseServiceObject base;
    std::vector<std::string> names;
    EXPECT_FALSE(base.initProxy());
    EXPECT_FALSE(base.SubscribeResource("r"));
    EXPECT_FALSE(base.isSubscribed("r"));
}

TEST(ProxyNames, AreFiftyTwoDifferentOnes) {
    EXPECT_EQ(std::set<std::string_view>(proxyNames::all.begin(), proxyNames::all.end()).size(), 52U);
    for (const auto name : proxyNames::all) {
        EXPECT_TRUE(name.ends_with("Proxy")) << name;
    }
}

}  // namespace
}  // namespace vlmProd
