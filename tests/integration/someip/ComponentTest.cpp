/// The middleware of the process, as programs use it.
#include "Bench.h"
#include "ac/com/runtime/component.h"

using namespace vlmTest;
using ac::com::runtime::Component_singleton;

namespace {

// Multicast on the loopback interface: nothing leaves the machine.
std::string configuration() {
    const auto settings = settingsFor(5);
    return "{\"address\": \"" + settings.address + "\", \"network\": \"" + settings.network +
           "\", \"discovery\": {\"group\": \"" + multicastText() +
           "\", \"port\": " + std::to_string(discoveryPort()) + "}}";
}

}  // namespace

TEST(Component, ServesProxiesAndSkeletonsThatWereMadeBeforeItAndOutliveIt) {
    const LogCapture log{5};
    std::atomic<int> received{0};
    ac::com::SkeletonBase skeleton(kMeter);
    ac::com::SkeletonEvent<Reading> out(skeleton, kReadings);
    ac::com::ProxyBase proxy(kMeter, {kMeter.serviceId, 1, kMeter.majorVersion});
    ac::com::ProxyEvent<Reading> in(proxy, kReadings);
    in.Subscribe([&](std::vector<Reading>) { ++received; });
    EXPECT_TRUE(skeleton.OfferService());
    for (int life = 0; life < 2; ++life) {
        const int before = received;
        const Component_singleton component(true, configuration());
        EXPECT_TRUE(eventually([&] { return received > before; }, [&] { out.Send({numbered(1)}); }));
        EXPECT_THAT(ac::com::findService(kMeter, "*"), ::testing::SizeIs(1));
        EXPECT_THAT(ac::com::findService(kMeter, "1"), ::testing::SizeIs(1));
        EXPECT_THAT(ac::com::findService(kMeter, "2"), ::testing::IsEmpty());
        EXPECT_THAT(ac::com::findService(kMeter, "first"), ::testing::IsEmpty());
        const Component_singleton second(true, configuration());  // neither starts nor ends anything
    }
    EXPECT_FALSE(in.subscribed());
    EXPECT_TRUE(out.Send({numbered(2)}));
}

TEST(Component, AWrongConfigurationIsLoggedAndStartsNothing) {
    const LogCapture log{5};
    const Component_singleton wrong(false, "{\"address\": 5}");
    const Component_singleton broken(false, "no JSON");
    EXPECT_THAT(log.messages(3), ElementsAre(HasSubstr("someip.address"), HasSubstr("is no JSON")));
    EXPECT_FALSE(someip::Runtime::process().networkIsUp());
}
