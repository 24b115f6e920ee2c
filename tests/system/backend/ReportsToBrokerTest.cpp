/// From the shipping queue through a real broker to vlm-backend, with each peer lost and found again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Processes.h"
#include "report/VlmDataSubmissionControl.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::ElementsAre;
using vlmProd::VlmDataSubmissionControl;
using vlmTest::Broker;
using vlmTest::ChildProcess;
using vlmTest::eventually;
using vlmTest::freePort;
using vlmTest::LogCapture;
using vlmTest::TemporaryFolder;

/// The machine manifest is read once per process: one port for all tests of this program.
std::uint16_t port() {
    static const std::uint16_t value = freePort();
    return value;
}

const bool manifestIsSet = [] {
    static const TemporaryFolder folder;
    const std::string manifest = folder.write(
        "manifest.json",
        "{\"backend\": {\"transport\": \"mqtt\", \"mqtt\": {\"port\": " + std::to_string(port()) +
            ", \"prefix\": \"test/car\", \"reconnectMaxSeconds\": 1}}}");
    return ::setenv("VLM_MACHINE_MANIFEST", manifest.c_str(), 1) == 0;
}();

class ReportsToBroker : public testing::Test {
  protected:
    ~ReportsToBroker() override {
        if (m_control.started()) {
            m_control.stopVlmDataSubmissionControl();
            m_control.join();
        }
    }

    void startBackend(std::vector<std::string> options = {}) {
        std::vector<std::string> command{VLM_BACKEND, "--port",   std::to_string(port()),
                                         "--prefix",  "test/car", "--reopen-after",
                                         "50",        "--store",  m_store};
        command.insert(command.end(), options.begin(), options.end());
        m_backend = std::make_unique<ChildProcess>(command, m_output);
    }
    void startVehicle() {
        m_control.initializeServer("Catalog 1", {"TypeA"});
        m_control.start();
    }
    bool isOpen() { return m_log.waitFor("Enabling to send data when inserted."); }

    void add(const std::string& name) {
        kyo::Json::Value report(kyo::Json::objectValue);
        report["reportName"] = name;
        report["createDatetime"] = "1700000000000";
        report["sequenceNumber"] = ++m_number;
        report["signalCollections"][0]["samples"][0]["timestamp"] = "1";
        m_control.addReportToShippingQueue(report);
    }

    std::vector<std::string> storedNames() const {
        std::vector<std::string> names;
        std::ifstream file(m_store);
        for (std::string text; std::getline(file, text);) {
            kyo::Json::Value envelope;
            kyo::Json::Value report;
            EXPECT_TRUE(kyo::Json::Reader().parse(text, envelope)) << text;
            EXPECT_TRUE(kyo::Json::Reader().parse(envelope["orxClientDataReport"].asString(), report));
            names.push_back(report["reportName"].asString());
        }
        return names;
    }
    template <typename Condition>
    bool awaits(Condition&& condition) {
        return eventually(condition, [&] { m_control.SendWakeupSignal(); });
    }
    bool awaitStored(std::size_t count) {
        return awaits([&] { return storedNames().size() >= count; });
    }
    bool awaitName(const std::string& name) {
        return awaits([&] {
            const auto names = storedNames();
            return std::find(names.begin(), names.end(), name) != names.end();
        });
    }
    std::string output() const {
        std::ifstream file(m_output);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    bool backendSays(const std::string& part) {
        return awaits([&] { return output().find(part) != std::string::npos; });
    }

    TemporaryFolder m_folder;
    const std::string m_store = m_folder.file("store.jsonl");
    const std::string m_output = m_folder.file("output");
    LogCapture m_log;
    int m_number = 0;
    std::unique_ptr<ChildProcess> m_backend;
    VlmDataSubmissionControl m_control;
};

TEST_F(ReportsToBroker, follows_a_script_of_results) {
    ASSERT_TRUE(manifestIsSet);
    Broker broker(port());
    startBackend({"--results", "0,1,2,0,-,0"});
    startVehicle();
    ASSERT_TRUE(isOpen());
    add("a");
    ASSERT_TRUE(awaitStored(1));
    add("b");
    add("c");
    add("d");
    ASSERT_TRUE(awaitStored(5));
    EXPECT_THAT(storedNames(), ElementsAre("a", "b", "b", "b", "c"));
    ASSERT_TRUE(backendSays("c #3: 1 collections, 1 samples,"));
    ASSERT_TRUE(backendSays("no answer"));
    EXPECT_EQ(m_control.waitingReports(), 1u) << "without an answer nothing more is sent";

    m_backend->signal(SIGUSR1);  // opening once more acts like a result of 0
    ASSERT_TRUE(awaitStored(6));
    EXPECT_EQ(storedNames().back(), "d");
    EXPECT_NE(output().find("b #2: 1 collections, 1 samples"), std::string::npos);
    EXPECT_NE(output().find(", again, result 2"), std::string::npos);
    m_backend->signal(SIGTERM);
    EXPECT_EQ(m_backend->wait(), 0);
    EXPECT_NE(output().find("6 envelopes, 2 of them again, 6 samples"), std::string::npos);
}

TEST_F(ReportsToBroker, sends_nothing_while_the_channel_is_closed) {
    Broker broker(port());
    startBackend({"--closed"});
    startVehicle();
    ASSERT_TRUE(m_log.waitFor("Backend Channel Control result = 1"));
    add("discarded");
    ASSERT_TRUE(awaits([&] { return m_log.hasPart(3, "Could not sent the orx data = "); }));
    add("kept");
    m_backend->signal(SIGUSR1);
    ASSERT_TRUE(awaitStored(1));
    EXPECT_THAT(storedNames(), ElementsAre("kept"));
    ASSERT_TRUE(m_log.waitFor("Enabling to send data when inserted."));
    m_backend->signal(SIGUSR2);
    ASSERT_TRUE(m_log.waitFor("Backend Channel Control result = 1", 2));
    m_backend->signal(SIGUSR1);
    ASSERT_TRUE(awaitStored(2));
    EXPECT_THAT(storedNames(), ElementsAre("kept", "kept"))
        << "what was sent before the closing counts as failed";
}

TEST_F(ReportsToBroker, goes_on_when_the_broker_was_killed_and_returns) {
    Broker broker(port());
    startBackend();
    startVehicle();
    ASSERT_TRUE(isOpen());
    add("before");
    ASSERT_TRUE(awaitStored(1));
    for (int round = 0; round < 3; ++round) {
        broker.stop();
        ASSERT_TRUE(m_log.waitFor("no connection to the broker"));
        m_log.clear();
        add("while away " + std::to_string(round));
        broker.start();
        ASSERT_TRUE(awaitName("while away " + std::to_string(round)));
        add("after " + std::to_string(round));
        ASSERT_TRUE(awaitName("after " + std::to_string(round)));
        m_log.clear();
    }
}

TEST_F(ReportsToBroker, loses_nothing_when_the_backend_was_killed_and_returns) {
    Broker broker(port());
    startBackend();
    startVehicle();
    ASSERT_TRUE(isOpen());
    add("before");
    ASSERT_TRUE(awaitStored(1));
    ASSERT_TRUE(m_log.waitFor("Enabling to send data when inserted.", 2));
    const std::string backendName = "vlm-backend-" + std::to_string(m_backend->pid());
    m_backend.reset();
    ASSERT_TRUE(broker.says("Client " + backendName + " closed its connection"));
    for (int i = 0; i < 5; ++i) {
        add("alone " + std::to_string(i));
    }
    ASSERT_TRUE(awaits([&] { return m_log.hasPart(3, "no backend listens"); }));
    startBackend();
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(awaitName("alone " + std::to_string(i)));
    }
}

TEST(VlmBackend, refuses_wrong_options_with_a_reason) {
    TemporaryFolder folder;
    for (const std::vector<std::string>& wrong : {std::vector<std::string>{"--results", "0,x"},
                                                  {"--results", ""},
                                                  {"--results", "0,"},
                                                  {"--port", "70000"},
                                                  {"--unknown"},
                                                  {"stray"}}) {
        std::vector<std::string> command{VLM_BACKEND};
        command.insert(command.end(), wrong.begin(), wrong.end());
        const std::string output = folder.file("output");
        EXPECT_EQ(ChildProcess(command, output).wait(), 1) << wrong[0];
        std::ifstream said(output);
        std::string text((std::istreambuf_iterator<char>(said)), {});
        EXPECT_NE(text.find("vlm-backend: "), std::string::npos) << text;
    }
}

}  // namespace
