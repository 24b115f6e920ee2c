#include "services/ServiceDiscovery.h"

#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

namespace vlmProd {
namespace {

using testing::ElementsAre;
using vlmTest::LogCapture;

class ServiceDiscoveryTest : public testing::Test {
  protected:
    std::vector<std::string> asked;
    std::map<std::string, int> connectsAtAttempt;  ///< 0 or absent: never
    std::vector<std::chrono::seconds> pauses;
    ServiceDiscovery discovery{[this](const std::string& name) {
                                   asked.push_back(name);
                                   return --connectsAtAttempt[name] == 0;
                               },
                               [this](std::chrono::seconds pause) { pauses.push_back(pause); }};
};

TEST_F(ServiceDiscoveryTest, CompletesTheNamesOfAListAndKeepsTheirOrder) {
    discovery.processServiceNames();
    EXPECT_TRUE(asked.empty() && pauses.empty());
    LogCapture log;
    std::vector<std::string> services{"GNSS", "Airbag"};
    discovery.discoverService(services);
    EXPECT_THAT(services, ElementsAre("GNSSProxy", "AirbagProxy"));
    EXPECT_EQ(discovery.pending(), 2U);
    EXPECT_THAT(log.messages(5),
                ElementsAre("Pushing the service GNSSProxy  to queue to discover it",
                            "Pushing the service AirbagProxy  to queue to discover it",
                            "Waking up Service discovery Thread to process the serviceName"));
    connectsAtAttempt = {{"GNSSProxy", 1}, {"AirbagProxy", 1}};
    discovery.processServiceNames();
    EXPECT_THAT(asked, ElementsAre("GNSSProxy", "AirbagProxy"));
    EXPECT_EQ(discovery.pending(), 0U);
}

TEST_F(ServiceDiscoveryTest, TriesANameAgainAfterAllOthersUntilItConnects) {
    discovery.discoverService("late");
    discovery.discoverService("early");
    discovery.discoverService("never");
    connectsAtAttempt = {{"early", 1}, {"late", 3}};
    LogCapture log;
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(discovery.processNextName());
    }
    EXPECT_THAT(asked, ElementsAre("late", "early", "never", "late", "never", "late", "never", "never"));
    EXPECT_EQ(discovery.pending(), 1U);
    EXPECT_EQ(log.count(5, "Successfully discovered the service late"), 1U);
    EXPECT_EQ(log.count(5, "Processing the service name never"), 4U);
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
        EXPECT_THAT(log.messages(7),
                    ElementsAre("ServiceDiscovery thread starting up", "Starting to read from queue",
                                "Conditional wait because There is nothing to discover services."));
        discovery.discoverService("GNSSProxy");
        ASSERT_TRUE(log.waitFor("Conditional wait because There is nothing to discover services.", 2));
        EXPECT_EQ(found, 1);
        discovery.stopServiceDiscoveryThread();
        discovery.join();
    }
    EXPECT_TRUE(log.has(5, "Waking up Service discovery Thread to process the serviceName and exit."));
    EXPECT_EQ(log.lines().back().signature, "virtual vlmProd::ServiceDiscovery::~ServiceDiscovery()");
    EXPECT_EQ(log.lines().back().level, 7);
}

}  // namespace
}  // namespace vlmProd
