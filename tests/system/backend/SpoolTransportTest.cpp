/// The spool against a real broker: outages, restarts, both forms on the wire, what the application sees.
#include "Processes.h"
#include "backend/Backend.h"
#include "backend/SpoolTransport.h"
#include "tests/support/TransportClient.h"

namespace {

using namespace kyo::orx;
using namespace vlmTest;

/// A backend that stores what comes, and answers as its script says.
class Backend {
  public:
    explicit Backend(const machine::MqttBackend& settings, vlmBackend::Settings script = {})
        : m_backend(std::move(script), [this](const std::string& line) { m_lines.add(line); }),
          m_observer(settings, {"test/vehicle/status", "test/vehicle/data/#", "test/vehicle/health"},
                     "backend", [this](const auto& topic, const auto& payload) { take(topic, payload); }) {}
    void say(const kyo::Json::Value& control) {
        m_observer.say("test/vehicle/mastercontrol", compactText(control));
    }
    std::vector<std::string> topics() const { return m_topics.all(); }
    bool saw(const std::string& part) const { return Matches(Contains(HasSubstr(part)))(m_lines.all()); }

  private:
    void take(const std::string& topic, const std::string& payload) {
        if (topic.find("/data") != std::string::npos) {
            m_topics.add(topic);
        }
        for (const auto& answer : m_backend.onMessage(topic, payload)) {
            m_observer.say(answer.topic, answer.payload);
        }
    }
    SharedList<std::string> m_topics;
    SharedList<std::string> m_lines;
    vlmBackend::Backend m_backend;
    Observer m_observer;
};

struct Vehicle : StartedTransport<SpoolTransport> {
    explicit Vehicle(const machine::BackendSettings& settings,
                     SpoolDisk& disk = kyo::orx::Spool::ordinaryDisk())
        : StartedTransport(settings, kyo::orx::Presence{"Catalog 1", {"TypeA"}}, disk) {}
    /// Waits for an opening, then sends each when the one before is answered.
    void send(int from, int to, std::size_t size = 100) {
        EXPECT_TRUE(awaitControls(1));
        for (int i = from; i <= to; ++i) {
            const std::size_t before = controls().size();
            EXPECT_EQ(transport().send(envelope(std::to_string(i), size)), 0);
            EXPECT_TRUE(awaitControls(before + 1)) << "no answer for " << i;
        }
    }
};

struct SpoolBackendTest : Test {
    SpoolBackendTest() {
        m_settings.transport = "mqtt";
        m_settings.spool.emplace().path = m_folder.file("spool");
        m_settings.spool->drainJitterSeconds = 0;
    }
    std::set<std::string> stored() const {
        std::ifstream file(m_folder.file("store"));
        std::set<std::string> ids;
        for (std::string line; std::getline(file, line);) {
            ids.insert(valueOf(line)["messageId"].asString());
        }
        return ids;
    }
    vlmBackend::Settings script(std::vector<int> results = {0}) const {
        vlmBackend::Settings settings;
        settings.store = m_folder.file("store");
        settings.results = std::move(results);
        return settings;
    }
    std::uint64_t waiting() const {
        std::uint64_t count = 0;
        kyo::orx::Spool::list(m_folder.file("spool"), [&count](const auto&) { ++count; });
        return count;
    }

    TemporaryFolder m_folder;
    LogCapture m_log;
    const std::uint16_t m_port = freePort();
    machine::BackendSettings m_settings = behind(brokerAt(m_port));
    Broker m_broker{m_port};
};

TEST_F(SpoolBackendTest, KeepsResultsAndClosuresToItselfButPassesAWithdrawnPermissionOn) {
    m_broker.stop();
    Vehicle vehicle(m_settings);
    EXPECT_TRUE(vehicle.controls().empty()) << "nobody has opened it";
    m_broker.restart();
    Backend backend(m_settings.mqtt, script({1, 2, 0}));
    vehicle.send(1, 2);
    EXPECT_EQ(vehicle.controls().size(), 3u);
    for (const auto& control : vehicle.controls()) {
        EXPECT_EQ(control["backendChannelControl"], 0);
        EXPECT_EQ(control["dataDeliveryResult"], 0);
    }
    EXPECT_TRUE(eventually([&] { return backend.topics().size() >= 1; }));
    backend.say(masterControl("t", {"TypeA"}, 0, 0));
    EXPECT_TRUE(eventually([&] { return backend.topics().size() >= 2; }));
    backend.say(masterControl("t", {"TypeA"}, 0, 0));
    EXPECT_TRUE(eventually([&] {
        backend.say(masterControl("t", {"TypeA"}, 0, 0));
        return waiting() == 0;
    }));
    EXPECT_EQ(vehicle.controls().size(), 3u);
    backend.say(masterControl("t", {}, 0, 0));
    ASSERT_TRUE(vehicle.awaitControls(4));
    EXPECT_TRUE(vehicle.controls()[3]["permittedDataType"].empty());
    EXPECT_EQ(stored(), (std::set<std::string>{"1", "2"}));
}

TEST_F(SpoolBackendTest, MovesWhatTheBrokerNeverTakesAsideAndSendsTheOthers) {
    m_broker.restart("max_packet_size 50000\n");
    Backend backend(m_settings.mqtt, script());
    Vehicle vehicle(m_settings);
    vehicle.send(1, 1);
    vehicle.send(2, 2, 100000);
    vehicle.send(3, 3);
    EXPECT_TRUE(eventually([&] { return waiting() == 0; }));
    EXPECT_THAT(stored(), ElementsAre("1", "3"));
    EXPECT_TRUE(m_log.waitFor("moves to bad/"));
}

TEST_F(SpoolBackendTest, WaitsForABackendThatKnowsItsDictionary) {
    m_settings.compression = {"zstd", 1, "50001"};
    {
        Backend backend(m_settings.mqtt, script());
        Vehicle vehicle(m_settings);
        ASSERT_TRUE(vehicle.awaitControls(1));
    }
    m_broker.stop();
    Vehicle(m_settings).send(1, 3);
    m_settings.compression = {};
    m_broker.restart();
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(vehicle.awaitControls(1));
    {
        Backend backend(m_settings.mqtt, script());
        ASSERT_TRUE(eventually([&] { return backend.saw("its dictionary 50001 is not known"); }));
        EXPECT_EQ(backend.topics().front(), "test/vehicle/data/zstd-50001/1");
    }
    EXPECT_EQ(waiting(), 3u);
    vlmBackend::Settings settings = script();
    settings.dictionaries.addBuiltIn();
    Backend backend(m_settings.mqtt, settings);
    vehicle.send(4, 4);
    EXPECT_TRUE(eventually([&] { return waiting() == 0; }));
    EXPECT_EQ(stored(), (std::set<std::string>{"1", "2", "3", "4"}));
    EXPECT_THAT(backend.topics(), Contains("test/vehicle/data/plain/4"));
}

class FullDisk : public SpoolDisk {
  public:
    int write(const Path& file, std::string_view content) override {
        return isFull ? ENOSPC : SpoolDisk::write(file, content);
    }
    std::atomic<bool> isFull{false};
};

TEST_F(SpoolBackendTest, WaitsForAFullDiskOrCountsWhatItCostsWhenTheNewestAreDropped) {
    FullDisk disk;
    Backend backend(m_settings.mqtt, script());
    {
        Vehicle waiting(m_settings, disk);
        ASSERT_TRUE(waiting.awaitControls(1));
        disk.isFull = true;
        EXPECT_EQ(waiting.transport().send(envelope("1")), 0);
        EXPECT_TRUE(m_log.waitFor("No space left on device; trying again every second"));
        EXPECT_EQ(waiting.transport().send(envelope("2")), -EAGAIN);
        EXPECT_EQ(waiting.controls().size(), 1u);
        disk.isFull = false;
        ASSERT_TRUE(waiting.awaitControls(2));
        waiting.send(2, 2);
        EXPECT_TRUE(eventually([&] { return stored().size() == 2; }));
    }
    m_log.clear();
    m_settings.spool->whenFull = "newest";
    const auto before = counted("spool.dropped.disk");
    Vehicle dropping(m_settings, disk);
    ASSERT_TRUE(dropping.awaitControls(1));
    disk.isFull = true;
    dropping.send(3, 5);
    EXPECT_EQ(counted("spool.dropped.disk") - before, 3u);
    EXPECT_EQ(m_log.messages(3).size(), 1u);  // the cause, once
    EXPECT_FALSE(m_log.hasPart(5, "takes envelopes again"));
    disk.isFull = false;
    dropping.send(6, 6);
    EXPECT_TRUE(m_log.waitFor("takes envelopes again"));
    EXPECT_TRUE(eventually([&] { return stored() == std::set<std::string>{"1", "2", "6"}; }));
    EXPECT_EQ(backend.topics().back(), "test/vehicle/data/plain/6");  // the backend sees what is missing
}

TEST_F(SpoolBackendTest, SendsAgainWhatABrokerConfirmedAndThenLost) {
    for (const int id : {1, 2}) {
        vlmBackend::Settings settings = script();
        settings.namesEnvelopes = id == 2;
        Vehicle vehicle(m_settings);
        {
            vlmBackend::Settings silent = settings;
            silent.results = {vlmBackend::kSilence};
            silent.store.clear();
            Backend backend(m_settings.mqtt, silent);
            vehicle.send(id, id);
            // So the broker confirmed it.
            ASSERT_TRUE(eventually([&] { return backend.topics().size() == 1; }));
        }
        m_broker.restart();
        // The opening that comes first on the new connection is no result.
        Backend backend(m_settings.mqtt, settings);
        EXPECT_TRUE(eventually([&] { return stored().count(std::to_string(id)) == 1; }));
        EXPECT_TRUE(eventually([&] { return waiting() == 0; }));
    }
}

TEST_F(SpoolBackendTest, StartsWithoutABrokerFromWhatItRemembers) {
    const auto record = valueOf(R"([{"recordId":"trip-7","recordBody":"e30="}])");
    m_settings.remember.afterSeconds = 0;
    {
        Backend backend(m_settings.mqtt, script());
        Vehicle vehicle(m_settings);
        ASSERT_TRUE(vehicle.awaitControls(1));
        EXPECT_EQ(vehicle.transport().requestConfiguration(), 0);
        Observer other(m_settings.mqtt, {"nothing"}, "other");
        for (int i = 0; i < 2; ++i) {
            other.say("test/vehicle/config/response", compactText(record));
        }
        ASSERT_TRUE(vehicle.awaitAnswers(1));
        EXPECT_TRUE(m_log.waitFor("is the one that was passed on last"));
        EXPECT_EQ(vehicle.answers().size(), 1u);
        vehicle.transport().configurationAccepted("trip-7", true, "");
        kyo::Json::Value another = record;
        const auto before = counted("orx.callbacks.dropped");
        {
            const std::lock_guard<std::mutex> busy(vehicle.busy);
            for (int i = 0; i < 30; ++i) {
                another[0]["recordBody"] = std::to_string(i);
                other.say("test/vehicle/config/response", compactText(another));
            }
            EXPECT_TRUE(eventually([&] { return counted("orx.callbacks.dropped") >= before + 20; }));
        }
        EXPECT_TRUE(eventually([&] {
            other.say("test/vehicle/config/response", compactText(another));
            return vehicle.answers().back() == another;  // although it was dropped before
        }));
    }
    m_broker.stop();
    Vehicle vehicle(m_settings);
    ASSERT_TRUE(vehicle.awaitControls(1));
    vehicle.transport().requestConfiguration();
    ASSERT_TRUE(vehicle.awaitAnswers(1));
    EXPECT_EQ(vehicle.answers()[0], record);
    EXPECT_TRUE(m_log.waitFor("the remembered one is used: trip-7"));
}

TEST(BenchBackend, AcknowledgesNoEnvelopeThatItCannotStore) {
    vlmBackend::Settings settings;
    settings.store = "/nowhere/store.jsonl";
    std::vector<std::string> lines;
    vlmBackend::Backend backend(settings, [&](const std::string& line) { lines.push_back(line); });
    const auto answers = backend.onMessage("vlm/car/data", compactText(envelope("1")));
    ASSERT_FALSE(answers.empty());
    EXPECT_THAT(answers[0].payload, HasSubstr("\"dataDeliveryResult\":1"));
    EXPECT_THAT(lines, Contains(HasSubstr("store.jsonl cannot be written")));
}

}  // namespace
