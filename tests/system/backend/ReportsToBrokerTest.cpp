/// From the shipping queue through a real broker to vlm-backend and back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Processes.h"
#include "report/VlmDataSubmissionControl.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoConfigurations.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using vlmProd::VlmDataSubmissionControl;
using vlmTest::Broker;
using vlmTest::ChildProcess;
using vlmTest::Descriptor;
using vlmTest::eventually;
using vlmTest::LogCapture;
using vlmTest::openForWriting;
using vlmTest::readFile;
using vlmTest::TemporaryFolder;

class ReportsToBroker : public testing::Test {
  protected:
    ~ReportsToBroker() override {
        m_control.stopVlmDataSubmissionControl();
        m_control.join();
    }

    void startBackend(std::vector<std::string> options = {}) {
        std::vector<std::string> command{VLM_BACKEND, "--port",   std::to_string(m_port),
                                         "--prefix",  "test/car", "--reopen-after",
                                         "50",        "--store",  m_store};
        command.insert(command.end(), options.begin(), options.end());
        m_backend = std::make_unique<ChildProcess>(command, std::vector<std::string>(), m_output, m_output);
    }
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
    std::string output() const { return readFile(m_folder.file("output")); }

    /// The process reads its machine manifest once, so set it before the first log line.
    std::string manifest() const {
        return R"({"backend": {"transport": "mqtt", "mqtt": {"prefix": "test/car", "reconnectMaxSeconds": 1, "port": )" +
               std::to_string(m_port) + "}}}";
    }

    const std::uint16_t m_port = vlmTest::freePort();
    TemporaryFolder m_folder;
    const int m_manifestSet =
        ::setenv("VLM_MACHINE_MANIFEST", m_folder.write("manifest.json", manifest()).c_str(), 1);
    const std::string m_store = m_folder.file("store.jsonl");
    const Descriptor m_output{openForWriting(m_folder.file("output"))};
    LogCapture m_log;
    int m_number = 0;
    std::unique_ptr<ChildProcess> m_backend;
    VlmDataSubmissionControl m_control;
};

TEST_F(ReportsToBroker, ComeAsOftenAsTheBackendWantsWhileItIsThereAndOpen) {
    Broker broker(m_port);
    startBackend({"--closed", "--results", "0,1,2,0,-,0"});
    m_control.initializeServer("Catalog 1", {"TypeA"}, std::make_shared<vlmTest::NoConfigurations>());
    m_control.start();
    ASSERT_TRUE(m_log.waitFor("Backend Channel Control result = 1"));
    add("discarded");
    ASSERT_TRUE(awaits([&] { return m_log.hasPart(3, "Could not sent the orx data = "); }));
    add("a");
    m_backend->signal(SIGUSR1);
    ASSERT_TRUE(awaitStored(1));
    add("b");
    add("c");
    add("d");
    ASSERT_TRUE(awaitStored(5));
    EXPECT_THAT(storedNames(), ElementsAre("a", "b", "b", "b", "c"));
    ASSERT_TRUE(awaits([&] { return output().find("no answer") != std::string::npos; }));
    EXPECT_EQ(m_control.waitingReports(), 1u) << "without an answer nothing more is sent";

    m_log.clear();
    m_backend->signal(SIGUSR2);
    ASSERT_TRUE(m_log.waitFor("Backend Channel Control result = 1"));
    m_backend->signal(SIGUSR1);
    ASSERT_TRUE(m_log.waitFor("Enabling to send data when inserted."));
    EXPECT_THAT(storedNames(), ElementsAre("a", "b", "b", "b", "c", "c", "d"))
        << "what was sent before the closing counts as failed";
    m_backend->signal(SIGTERM);
    EXPECT_EQ(m_backend->wait(), 0);
    EXPECT_THAT(output(), HasSubstr("7 envelopes, 3 of them again, 7 samples"));

    add("alone 1");
    add("alone 2");
    ASSERT_TRUE(awaits([&] { return m_log.hasPart(3, "no backend listens"); }));
    startBackend();
    EXPECT_TRUE(awaits([&] {
        return testing::Matches(testing::IsSupersetOf({"alone 1", "alone 2"}))(storedNames());
    })) << "nothing is lost while the backend is away";
}

}  // namespace
