#include "services/ServiceDiscovery.h"

#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

TEST(ServiceDiscoveryTest, CompletesTheNamesOfAListAndTriesEachAgainAfterAllOthersUntilItConnects) {
    std::vector<std::string> asked;
    std::map<std::string, int> connectsAtAttempt;
    std::vector<std::chrono::seconds> pauses;
    ServiceDiscovery discovery(
        [&](const std::string& name) {
            asked.push_back(name);
            return --connectsAtAttempt[name] == 0;
        },
        [&](std::chrono::seconds pause) { pauses.push_back(pause); });
    LogCapture log;
    std::vector<std::string> services{"Late", "Early", "Last"};
    discovery.discoverService(services);
    EXPECT_THAT(services, ElementsAre("LateProxy", "EarlyProxy", "LastProxy"));
    connectsAtAttempt = {{"EarlyProxy", 1}, {"LateProxy", 3}, {"LastProxy", 4}};
    discovery.stopServiceDiscoveryThread();
    EXPECT_FALSE(discovery.drainOnce()) << "the stop counts once the queue is empty";
    EXPECT_THAT(asked, ElementsAre("LateProxy", "EarlyProxy", "LastProxy", "LateProxy", "LastProxy",
                                   "LateProxy", "LastProxy", "LastProxy"));
    EXPECT_EQ(log.count(5, "Successfully discovered the service LateProxy"), 1U);
    EXPECT_EQ(pauses, std::vector<std::chrono::seconds>(8, std::chrono::seconds(2)))
        << "whatever came out of it";
}

TEST(ServiceDiscoveryThread, EndsPromptlyWhenItIsStoppedInItsWait) {
    LogCapture log;
    std::atomic<int> found{0};
    {
        ServiceDiscovery discovery([&](const std::string&) { return ++found > 0; },
                                   [](std::chrono::seconds) {});
        discovery.start();
        ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to discover services."));
        discovery.discoverService("GNSSProxy");
        ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to discover services.", 2));
        EXPECT_EQ(found, 1);
        discovery.stopServiceDiscoveryThread();
        discovery.join();
    }
    EXPECT_TRUE(log.has(5, "Waking up Service discovery Thread to process the serviceName and exit."));
}

}  // namespace
