// The base setup: its order, what a further configuration changes and what it leaves, how records find their
// collector, and the passes that subscribe.
#include "config/ConfigResponseHandler.h"

#include "bus/PubSubService.h"
#include "bus/Publisher.h"
#include "collect/IngressQueue.h"
#include "report/VlmReportControl.h"
#include "tests/support/Test.h"
#include "tests/support/TestCatalog.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

constexpr char kCatalog[] = R"({"meta":{"vlmVersion":"7"},"services":{
  "GNSS":{"positions":{"someipKeyProperty":"type","instances":{
            "1":[{"property":"latitude"},{"property":"longitude"}],"2":[{"property":"speed"}]}},
          "times":{"someipKeyProperty":"source","instances":{"0":[{"property":"utc"}]}}},
  "Airbag":{"crashes":{"someipKeyProperty":"type","instances":{"1":[]}}}}})";

constexpr char kFirst[] = R"({
  "CONFIG":[{"name":"first","version":"1"}], "CLOCK":[{"name":"tick","duration":90000}],
  "REPORT":[{"name":"r1","application":"app","from":["c1","c2"]}],
  "COLLECT":[{"name":"c1","serv":"GNSS","res":"positions","index":1,"on":"tick","history":500},
             {"name":"c2","serv":"Airbag","res":"crashes","index":1}]})";

// c1 differs, c3 is new on a new index, c4 wants the records that c1 has.
constexpr char kSecond[] = R"({
  "CONFIG":[{"name":"second","version":"2"}], "CLOCK":[{"name":"tock"}],
  "REPORT":[{"name":"r2","from":["c3"]}],
  "COLLECT":[{"name":"c1","serv":"GNSS","res":"times","index":0},
             {"name":"c3","serv":"GNSS","res":"positions","index":2},
             {"name":"c4","serv":"GNSS","res":"positions","index":1}]})";

/// An adapter that writes down what it is asked.
class FakeAdapter : public BaseServiceObject {
  public:
    void createResourceObject(std::vector<std::string> resources) override {
        note("create " + resources.at(0) + (resources.size() == 1 ? "" : " and more"));
    }
    void setSomeIPKey(std::string resource, std::string key) override { note("key " + resource + " " + key); }
    void setSomeIPIndexAttribute(std::string resource, int index, std::vector<std::string>& names) override {
        std::string text = "index " + resource + " " + std::to_string(index);
        for (const std::string& name : names) {
            text += " " + name;
        }
        note(text);
    }
    void setCollectorName(std::string service, std::string resource, int index, std::string name) override {
        note("collector " + service + " " + resource + " " + std::to_string(index) + " " + name);
    }
    bool isSubscribed(std::string resource) override { return m_subscribed.count(resource) > 0; }
    bool SubscribeResource(std::string resource) override {
        note("subscribe " + resource);
        if (m_offered) {
            m_subscribed.insert(resource);
        }
        return m_offered;
    }

    std::vector<std::string> calls() { return m_calls.take(); }
    std::atomic<bool> m_offered{true};

  private:
    void note(const std::string& call) { m_calls.add(call); }

    SharedList<std::string> m_calls;
    std::set<std::string> m_subscribed;
};

/// Makes what threads use that wait for ever: never destroyed, but in sight of a leak checker.
template <typename T, typename... Arguments>
T& leftBehind(Arguments&&... arguments) {
    static auto* const all = new std::vector<T*>;
    all->push_back(new T(std::forward<Arguments>(arguments)...));
    return *all->back();
}

struct ConfigResponseHandlerTest : Test {
    static void SetUpTestSuite() { haveCatalog(kCatalog); }

    bool setUp(const char* configuration) {
        return m_handler.doBaseSetupFromOrxConfigResponse(valueOf(configuration), "record");
    }

    void send(const std::string& record) { m_handler.sendRecordsToCollectorObject(valueOf(record)); }

    std::shared_ptr<FakeAdapter> m_gnss = std::make_shared<FakeAdapter>();
    std::shared_ptr<FakeAdapter> m_airbag = std::make_shared<FakeAdapter>();
    ServiceMapObjectHandler m_services{
        ServiceMapObjectHandler::Adapters{{"GNSSProxy", m_gnss}, {"AirbagProxy", m_airbag}}};
    ServiceDiscovery& m_discovery =
        leftBehind<ServiceDiscovery>([](const std::string&) { return true; }, [](std::chrono::seconds) {});
    ConfigResponseHandler& m_handler = leftBehind<ConfigResponseHandler>(m_services, m_discovery);
    LogCapture m_log;
};

/// Looks, while collectors are created, at what runs already.
struct StageWatch : kyo::ProductLogger {
    void logData(std::string message, kyo::LogLevel) override {
        if (message.find("Creating collector object for c") != std::string::npos) {
            m_queueRan = IngressQueue::getInstance()->started();
            m_busRan = PubSubService::getInstance().started();
        }
    }
    std::atomic<bool> m_queueRan{false};
    std::atomic<bool> m_busRan{true};
};

// The first of these tests: both stages then run until the process ends.
TEST_F(ConfigResponseHandlerTest, StartsTheIngressQueueBeforeTheCollectorsAndTheBusAfterThem) {
    const bool isFirst = !PubSubService::getInstance().started();
    auto& watch = leftBehind<StageWatch>();  // threads may log for a moment longer
    kyo::Log::setProductLogger(&watch);
    EXPECT_TRUE(setUp(kFirst));
    kyo::Log::setProductLogger(nullptr);
    EXPECT_TRUE(watch.m_queueRan);
    EXPECT_NE(watch.m_busRan, isFirst);
    EXPECT_TRUE(PubSubService::getInstance().started());
}

TEST_F(ConfigResponseHandlerTest, CreatesNoCollectorWhenDiscoveryDoesNotStart) {
    struct Failing : ServiceDiscovery {
        using ServiceDiscovery::ServiceDiscovery;
        void start() override {}
    };
    Failing discovery([](const std::string&) { return true; }, [](std::chrono::seconds) {});
    ConfigResponseHandler handler(m_services, discovery);
    EXPECT_FALSE(handler.doBaseSetupFromOrxConfigResponse(valueOf(kFirst), "record"));
    EXPECT_TRUE(m_log.has(3, "Service discovery failed to start"));
    EXPECT_FALSE(m_log.hasPart(5, "Creating collector object"));
}

TEST_F(ConfigResponseHandlerTest, SetsThePipelineUpWithAllThatItNeeds) {
    const TemporaryFolder folder;
    ASSERT_TRUE(m_handler.doBaseSetupFromLocalConfig(folder.write("collector.json", kFirst)));
    EXPECT_TRUE(m_log.has(4, "Didn't find the OnEvent type for c2. Hence defaulting to Clock."));
    EXPECT_TRUE(m_log.has(5, "CLOCK NAME = tick  And DURATION = 90000"));
    EXPECT_TRUE(VlmReportControl::getInstance().started());
    EXPECT_TRUE(m_discovery.started());
    EXPECT_THAT(m_gnss->calls(),
                ElementsAre("create positions", "key positions type", "index positions 1 latitude longitude",
                            "collector GNSSProxy positions 1 c1"));
    EXPECT_THAT(m_airbag->calls(), ElementsAre("create crashes", "key crashes type", "index crashes 1",
                                               "collector AirbagProxy crashes 1 c2"));
    ASSERT_TRUE(m_log.waitFor("Successfully discovered the service AirbagProxy"));
}

TEST_F(ConfigResponseHandlerTest, AFurtherConfigurationAddsToWhatIsThereAndReplacesTheClock) {
    ASSERT_TRUE(setUp(kFirst));
    ASSERT_TRUE(m_log.waitFor("Successfully discovered the service"));
    m_gnss->calls();
    m_airbag->calls();
    m_log.clear();
    ASSERT_TRUE(setUp(kSecond));
    EXPECT_TRUE(m_log.has(5, "Collector c1 exists and stays as it is"));
    EXPECT_TRUE(m_log.has(5, "CLOCK NAME = tock  And DURATION = 60000"));
    EXPECT_TRUE(m_log.has(3, "Collector c4 stays empty: the records of GNSSProxy|positions|1 go to c1"));
    EXPECT_FALSE(m_log.hasPart(5, "Pushing the service")) << "GNSS is in discovery already";
    EXPECT_THAT(m_gnss->calls(), ElementsAre("create times", "key times source", "index times 0 utc",
                                             "collector GNSSProxy times 0 c1", "index positions 2 speed",
                                             "collector GNSSProxy positions 2 c3"));
    EXPECT_THAT(
        m_handler.configuredResources(),
        ElementsAre(Pair("Airbag", ElementsAre("crashes")), Pair("GNSS", ElementsAre("positions", "times"))));
    for (const std::string collector : {"c1", "c2", "c3", "c4"}) {
        m_log.clear();
        send(R"({"collectorName":")" + collector + R"("})");
        EXPECT_TRUE(m_log.has(5, "Inserting record into collector object")) << collector;
    }
}

TEST_F(ConfigResponseHandlerTest, AConfigurationThatIsRefusedChangesNothingAndIsLogged) {
    EXPECT_FALSE(m_handler.doBaseSetupFromLocalConfig("/absent.json"));
    EXPECT_THAT(
        m_log.messages(3),
        ElementsAre("Config file parsing failed",
                    "Nothing is collected from the collector configuration /absent.json: it cannot be opened",
                    "Create Config parser from failed FAILED"));
    EXPECT_FALSE(m_discovery.started());
    ASSERT_TRUE(setUp(kFirst));
    m_log.clear();
    const auto refused = counted("config.refused");
    EXPECT_FALSE(setUp(R"({"COLLECT":[{"name":"c9","serv":"Airbag","res":"crashes","index":"1"}]})"));
    EXPECT_FALSE(setUp(R"({"COLLECT":[{"name":"c9","serv":"Airbag","res":"crashes"}]})"));
    EXPECT_TRUE(
        m_log.has(3, "The backend's collector configuration is not used: COLLECT[0].index is missing"));
    EXPECT_FALSE(setUp("[]"));
    EXPECT_FALSE(setUp(R"({"CLOCK":[{"name":"t"}],"REPORT":[],"COLLECT":[]})"));
    EXPECT_EQ(counted("config.refused"), refused + 4);
    EXPECT_EQ(m_log.count(3, "Config file parsing failed"), 3u);
    EXPECT_TRUE(m_log.has(3, "Didn't get the list of the services to discover"));
    EXPECT_FALSE(m_log.hasPart(5, "CLOCK NAME = "));
    EXPECT_EQ(m_handler.configuredResources().size(), 2u);
    send(R"({"collectorName":"c1"})");

    const auto before = counted("records.withoutCollector");
    for (const char* stray : {R"({"collectorName":"c9"})", R"({"collectorName":{"c1":1}})", "[]"}) {
        send(stray);
    }
    EXPECT_EQ(m_log.count(3, "Collector name is not found, dropping the record"), 3u);
    EXPECT_EQ(counted("records.withoutCollector"), before + 3);
    EXPECT_EQ(m_log.count(5, "Inserting record into collector object"), 1u);
}

TEST_F(ConfigResponseHandlerTest, APassTriesWhatIsNotSubscribedAndRestsBetweenServices) {
    int pauses = 0;
    const auto pass = [&] {
        m_handler.subscribeOnce(
            {{"Airbag", {"crashes"}}, {"GNSS", {"positions", "times"}}, {"Unknown", {"events"}}},
            [&] { ++pauses; });
    };
    m_airbag->m_offered = false;
    pass();
    EXPECT_EQ(pauses, 2);
    EXPECT_THAT(m_gnss->calls(), ElementsAre("subscribe positions", "subscribe times"));
    EXPECT_TRUE(m_log.has(5, "Successfully subscribed for the resource positions"));
    EXPECT_TRUE(m_log.hasPart(3, "Failed to subscribe for service = Airbag"));
    m_airbag->m_offered = true;
    pass();
    pass();
    EXPECT_THAT(m_gnss->calls(), IsEmpty()) << "both are subscribed";
    EXPECT_THAT(m_airbag->calls(), ElementsAre("subscribe crashes", "subscribe crashes"));
}

// Threads that race: two that hand over configurations, two that dispatch records, one that subscribes, one
// that ticks and one that reads the status; and the bus.
TEST_F(ConfigResponseHandlerTest, ConfigurationsRecordsAndPassesDoNotDisturbEachOther) {
    ASSERT_TRUE(setUp(kFirst));
    kyo::Log::setReportingLevel(0);
    std::atomic<int> configuring{2};
    Together(7, [&](int t) {
        if (t < 2) {
            for (int i = 0; i < 10; ++i) {
                EXPECT_TRUE(setUp(t == 0 ? kFirst : kSecond));
            }
            --configuring;
        }
        while (configuring > 0) {
            if (t == 2 || t == 3) {
                send(t == 2 ? R"({"collectorName":"c1","timestamp":1})" : R"({"collectorName":"c3"})");
            } else if (t == 4) {
                m_handler.subscribeOnce(m_handler.configuredResources(), [] {});
            } else if (t == 5) {
                Message tick;
                EventPublisher().publishMessage(tick);
                std::this_thread::sleep_for(1ms);
            } else {
                kyo::Status::snapshot();
            }
        }
    }).join();
    EXPECT_EQ(m_handler.configuredResources().size(), 2u);
}

}  // namespace
