#include "services/ServiceMapObjectHandler.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

namespace vlmProd {
namespace {

using testing::ElementsAre;

/// Notes what only the registry's users ask of an adapter.
class Adapter : public BaseServiceObject {
  public:
    bool initProxy() override { return ++attempts == 2; }
    void addProperties(std::string resource, std::vector<std::string> names) override {
        added = resource + " " + names.at(0);
    }
    int attempts = 0;
    std::string added;
};

TEST(Registry, AsksTheNamedServicesAdapterAndAnswersAnUnknownServiceWithItsMessage) {
    vlmTest::LogCapture log;
    const auto adapter = std::make_shared<Adapter>();
    const std::string known = "RouterBasedConsumptionProxy";
    ServiceMapObjectHandler registry{ServiceMapObjectHandler::Adapters{{known, adapter}}};
    std::vector<std::string> names{"n"};
    EXPECT_EQ(registry.getServiceObject(known), adapter);
    EXPECT_FALSE(registry.findService(known));
    EXPECT_TRUE(registry.findService(known)) << "asked every time, and its answer is passed on";
    registry.addAttributesToResource(known, "r", names);
    EXPECT_EQ(adapter->added, "r n");
    EXPECT_FALSE(registry.SubscribeResource(known, "r"))
        << "an adapter's operations do nothing by themselves";
    EXPECT_FALSE(registry.isResourceSubscribed(known, "r"));
    EXPECT_THAT(log.messages(3), testing::IsEmpty());

    for (const std::string name : {"RouteBasedConsumptionProxy", "", "routerbasedconsumptionproxy"}) {
        log.clear();
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

}  // namespace
}  // namespace vlmProd
