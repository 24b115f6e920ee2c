/// From the shipping queue to the lines of the embedded backend, with all that stands between.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "report/VlmDataSubmissionControl.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::ElementsAre;
using vlmProd::VlmDataSubmissionControl;
using vlmTest::eventually;
using vlmTest::LogCapture;
using vlmTest::TemporaryFolder;

/// The machine manifest is read once per process, so it names a folder that all tests of this program share.
const TemporaryFolder& folder() {
    static const TemporaryFolder instance;
    return instance;
}

const bool manifestIsSet = [] {
    const std::string manifest = folder().write(
        "manifest.json", "{\"backend\": {\"transport\": \"directory\", \"directory\": {\"path\": \"" +
                             folder().path() + "/backend\"}}}");
    return ::setenv("VLM_MACHINE_MANIFEST", manifest.c_str(), 1) == 0;
}();

struct Line {
    std::string messageId;
    std::string reportName;
    bool operator==(const Line&) const = default;
};

class ReportsToFolder : public testing::Test {
  protected:
    ReportsToFolder() {
        std::filesystem::remove_all(folder().file("backend"));
        m_control.initializeServer("Catalog 1", {"TypeA"});
        m_control.start();
    }
    ~ReportsToFolder() override {
        m_control.stopVlmDataSubmissionControl();
        m_control.join();
    }
    /// The first open message starts a send; a report that came before it would be discarded.
    bool isOpen() { return m_log.waitFor("Enabling to send data when inserted."); }

    void add(const std::string& name, std::size_t size = 0) {
        kyo::Json::Value report(kyo::Json::objectValue);
        report["reportName"] = name;
        report["createDatetime"] = "1700000000000";
        report["catalogId"] = "c";
        report["filling"] = std::string(size, 'x');
        m_control.addReportToShippingQueue(report);
    }

    std::vector<Line> stored() const {
        std::vector<Line> lines;
        std::ifstream file(folder().file("backend/envelopes.jsonl"));
        for (std::string text; std::getline(file, text);) {
            kyo::Json::Value envelope;
            kyo::Json::Value report;
            EXPECT_TRUE(kyo::Json::Reader().parse(text, envelope)) << text;
            EXPECT_TRUE(kyo::Json::Reader().parse(envelope["orxClientDataReport"].asString(), report));
            lines.push_back({envelope["messageId"].asString(), report["reportName"].asString()});
        }
        return lines;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const Line& line : stored()) {
            out.push_back(line.reportName);
        }
        return out;
    }
    bool awaitLines(std::size_t count) {
        return eventually([&] { return stored().size() >= count; }, [&] { m_control.SendWakeupSignal(); });
    }

    LogCapture m_log;
    VlmDataSubmissionControl m_control;
};

TEST_F(ReportsToFolder, stores_each_report_of_a_burst_once_and_in_order) {
    ASSERT_TRUE(manifestIsSet);
    ASSERT_TRUE(isOpen());
    std::vector<std::string> expected;
    for (int i = 0; i < 50; ++i) {
        expected.push_back("r" + std::to_string(i));
        add(expected.back());
    }
    ASSERT_TRUE(awaitLines(50));
    EXPECT_EQ(names(), expected);
    EXPECT_TRUE(eventually([&] { return m_control.waitingReports() == 0; }));
}

TEST_F(ReportsToFolder, goes_on_after_a_full_disk_with_the_last_good_report_again) {
    ASSERT_TRUE(isOpen());
    add("good");
    ASSERT_TRUE(awaitLines(1));
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tight{2000, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &tight);
    add("lost", 5000);
    ASSERT_TRUE(eventually([&] { return m_log.has(3, "Send vlm Data State: FAILED "); },
                           [&] { m_control.SendWakeupSignal(); }));
    add("next");
    EXPECT_THAT(names(), ElementsAre("good"));
    ::setrlimit(RLIMIT_FSIZE, &before);
    ASSERT_TRUE(awaitLines(3));
    EXPECT_THAT(names(), ElementsAre("good", "good", "next"));
    EXPECT_EQ(stored()[0], stored()[1]) << "a backend tells by the identifier that it has this one";
}

}  // namespace
