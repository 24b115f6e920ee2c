// vlm-state and vlm-status with a server.
#include "kyo/Histogram.h"
#include "state/StateServer.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Test.h"
#include "tools/state/Metrics.h"
#include "tools/state/StatusText.h"

using namespace vlmTest;

namespace {

struct StateTools : Test {
    void serve() {
        m_server = std::make_unique<ara::stm::StateServer>(
            m_folder.file("s"), [this](std::uint32_t id, const std::string& state) {
                while (m_self.load() == nullptr) {
                }
                m_self.load()->confirm(id, state, state == "kBad" ? "generalError" : "success");
            });
        m_self = m_server.get();
    }

    Outcome run(std::vector<std::string> command, const std::string& manifest = "") {
        command.insert(command.end(), {"--socket", m_folder.file("s")});
        return runToItsEnd(command, {"VLM_MACHINE_MANIFEST=" + manifest});
    }
    /// Runs the tool and expects its exit status and output.
    void expectOf(const std::vector<std::string>& command, int status, const std::string& out,
                  const std::string& err = "") {
        const auto outcome = run(command);
        EXPECT_EQ(outcome.status, status) << outcome.err;
        EXPECT_THAT(outcome.out, HasSubstr(out));
        EXPECT_THAT(outcome.err, HasSubstr(err));
    }

    TemporaryFolder m_folder;
    std::unique_ptr<ara::stm::StateServer> m_server;
    std::atomic<ara::stm::StateServer*> m_self{nullptr};
};

}  // namespace

TEST_F(StateTools, PrintTheAnswerAndReportSuccessByTheirExitStatus) {
    for (const std::string tool : {VLM_STATE, VLM_STATUS}) {
        const std::string word = tool == VLM_STATE ? "kOn" : "1";
        expectOf({tool, word}, 1, "", "no process answers at " + m_folder.file("s") + ": ");
        expectOf({tool, word}, 1, "", "Is vlmmaster running");
    }
    expectOf({VLM_STATUS, "soon"}, 1, "", "seconds are expected");
    expectOf({VLM_STATE}, 1, "", "Usage");

    serve();
    expectOf({VLM_STATE, "kPrepSD"}, 0, "kPrepSD confirmed: success\n");
    expectOf({VLM_STATE, "kBad"}, 1, "kBad confirmed: generalError\n");
    expectOf({VLM_STATE, std::string(500, 'k')}, 1, "", "\"state\" must be a text");
    kyo::Status::counter("tools.test.dropped").add(3);
    expectOf({VLM_STATUS}, 0, "Lost, or not usable:\ntools.test.dropped  3\n");
    EXPECT_EQ(valueOf(run({VLM_STATUS, "--json"}).out)["tools"]["test"]["dropped"].asInt(), 3);
}

TEST_F(StateTools, VlmStatusFollowsThroughARestart) {
    const Descriptor out(openForWriting(m_folder.file("live")));
    const ChildProcess tool({VLM_STATUS, "--follow", "0.05", "--socket", m_folder.file("s")}, {}, out);
    const auto lines = [&](const std::string& start) {
        return std::ranges::count_if(linesOf(readFile(m_folder.file("live"))),
                                     [&](const std::string& line) { return line.starts_with(start); });
    };
    EXPECT_TRUE(eventually([&] { return lines("waiting for vlmmaster") == 1; }));
    serve();
    EXPECT_TRUE(eventually([&] { return lines("services 0/0") >= 2; }));
    m_server.reset();
    EXPECT_TRUE(eventually([&] { return lines("waiting for vlmmaster") == 2; }));
    const auto before = lines("services 0/0");
    serve();
    EXPECT_TRUE(eventually([&] { return lines("services 0/0") > before; }));
}

TEST(StatusText, TheLiveLineShowsTheEssentialsAndTheRateBetweenTwoCalls) {
    const char* const kText = R"({"services":{"found":4,"configured":5},"events":{"subscribed":9},
        "samples":{"received":%s},"records":{"waiting":12},"clock":{"nextTickMs":31400},
        "reports":{"built":3,"sent":2,"waiting":1},"backend":{"open":true},
        "queue":{"bus":{"dropped":1},"collector":{"input":{"dropped":2}}},"someip":{"tp":{"dropped":4}},
        "records.expired":7,"log":{"dropped":{"console":0,"dlt":%s}}})";
    const auto snapshot = [&](const char* samples, const char* dlt) {
        char text[1000];
        std::snprintf(text, sizeof text, kText, samples, dlt);
        return valueOf(text);
    };
    tools::LiveLine line;
    const std::chrono::steady_clock::time_point start{};
    EXPECT_EQ(
        line.next(snapshot("100", "0"), start),
        "services 4/5, events 9 | samples 100, waiting 12 | tick in 31 s | reports 3, sent 2, waiting 1, "
        "backend open | lost 7");
    const std::string second = line.next(snapshot("350", "6"), start + std::chrono::seconds(2));
    EXPECT_THAT(second, HasSubstr("samples 350 (125/s)"));
    EXPECT_THAT(second, HasSubstr("lost 7, log lines dropped 6"));
    EXPECT_THAT(tools::LiveLine().next(valueOf(R"({"spool":{"waiting":12,"bytes":49152,"oldestSeconds":75,
                    "remainingSeconds":6.3}})"),
                                       start),
                HasSubstr("spool 12 (48 KiB, oldest 75 s, empty in 6 s)"));
    EXPECT_THAT(line.next(snapshot("5", "6"), start + std::chrono::seconds(3)), HasSubstr("samples 5, "))
        << "a restarted process has no rate yet";
}

TEST(StatusText, OddSnapshotsAreShownAndNeverThrow) {
    for (const char* const text :
         {"{}", R"({"samples":[1,2],"log":null,"backend":{"open":"x"},"a":{"b":{}}})", "[1]", "null"}) {
        const kyo::Json::Value snapshot = valueOf(text);
        EXPECT_THAT(tools::statusTable(snapshot), HasSubstr("Nothing was lost"));
        EXPECT_THAT(tools::LiveLine().next(snapshot, {}), Not(IsEmpty()));
    }
}

TEST(Metrics, HaveBaseUnitsHelpTextsAndCumulativeBuckets) {
    kyo::Histogram& histogram = kyo::Histogram::get("latency.tickToReport");
    for (const int us : {-5, 50, 51, 2'000'000, 70'000'000}) {
        histogram.add(std::chrono::microseconds(us));
    }
    kyo::Json::Value snapshot = valueOf(R"({"samples":{"received":7},"clock":{"durationMs":60000},
        "process":{"memoryKiB":2,"version":"1.\"2\\"},"someip":{"up":true},"not":{"described":1}})");
    snapshot["latency"]["tickToReport"] = histogram.value();
    const std::string open = tools::metricsText(snapshot, tools::MetricFormat::OpenMetrics);
    for (const char* const line :
         {"# TYPE vlm_samples_received counter\n# HELP vlm_samples_received samples that reached an "
          "adapter's "
          "callback\nvlm_samples_received_total 7\n",
          "# UNIT vlm_clock_duration_seconds seconds\n", "\nvlm_clock_duration_seconds 60\n",
          "\nvlm_process_memory_bytes 2048\n", "\nvlm_someip_up 1\n",
          "# TYPE vlm_not_described gauge\nvlm_not_described 1\n", "# TYPE vlm info\n",
          "\nvlm_clock_jumps_total 0\n", "\nvlm_info{process_version=\"1.\\\"2\\\\\"} 1\n",
          "# TYPE vlm_latency_tick_to_report_seconds histogram\n", "_bucket{le=\"5e-05\"} 2\n",
          "_bucket{le=\"0.0001\"} 3\n", "_bucket{le=\"1.25\"} 3\n", "_bucket{le=\"2.5\"} 4\n",
          "_bucket{le=\"60\"} 4\n", "_bucket{le=\"+Inf\"} 5\n",
          "vlm_latency_tick_to_report_seconds_sum 72.000101\n",
          "vlm_latency_tick_to_report_seconds_count 5\n"}) {
        EXPECT_THAT(open, HasSubstr(line));
    }
    const std::string older = tools::metricsText(snapshot, tools::MetricFormat::Prometheus);
    EXPECT_THAT(older, HasSubstr("# TYPE vlm_samples_received_total counter\n"));
    EXPECT_THAT(older, HasSubstr("# TYPE vlm_info gauge\n"));
    EXPECT_THAT(tools::statusTable(snapshot),
                HasSubstr("latency.tickToReport  5, half within 0.1 ms, 99 % above 60 s\n"));
    EXPECT_EQ(tools::metricsText(valueOf("{}"), tools::MetricFormat::Prometheus),
              "# TYPE vlm_up gauge\n# HELP vlm_up whether vlmmaster answers\nvlm_up 0\n");
}

TEST_F(StateTools, TheBundleWithoutARunningVlmmasterHasDigestsAndLogLinesWithoutPayloads) {
    m_folder.write("m.json", R"({"log": {"file": ")" + m_folder.file("log") +
                                 R"("}, "backend": {"transport": "mqtt", "spool": {"path": ")" +
                                 m_folder.file("") + "\"}}}");
    m_folder.write("configuration.json", R"({"recordId": "r1", "recordBody": "YWJj"})");
    m_folder.write("log", R"(
2026-03-11 14:05:09.123 INFO    int main(int, char**) Version 0.1.0
2026-03-11 14:05:09.123 5 int main(int, char**) Sleeping for 30 secs
2026-03-11 14:05:09.123 INFO    Record Json = {"text":" ERROR "}
    ERROR of a sample
2026-03-11 14:05:09.124 ERROR   field "speed" is "48.1
2026-03-11 14:05:09.125 3 refused: {"latitude":[48]: 1}
2026-03-11T14:05:10 host vlmmaster[7]: 2026-03-11 14:05:10.000 WARN    late [latitude]
2026-03-11T14:05:10 host vlmmaster[7]: The machine manifest m.json cannot be used: {a
2026-03-11T14:05:10 host systemd[1]: vlmmaster.service: Failed with result 'watchdog'.
)");
    const auto bundled = [this] {
        EXPECT_EQ(run({VLM_STATUS, "--bundle", m_folder.file("b")}, m_folder.file("m.json")).status, 0);
        return valueOf(readFile(m_folder.file("b")));
    };
    const auto bundle = bundled();
    EXPECT_THAT(bundle["status"]["error"].asString(), HasSubstr("no process answers"));
    const auto& files = bundle["configuration"];
    EXPECT_EQ(files["manifest"]["path"].asString(), m_folder.file("m.json"));
    EXPECT_EQ(files["manifest"]["sha256"].asString().size(), 64u);
    EXPECT_EQ(files["application"]["path"].asString(), "/etc/vlmmaster/application.json");
    EXPECT_EQ(files["remembered"]["recordId"].asString(), "r1");
    EXPECT_EQ(files["remembered"]["sha256"].asString(),  // of "abc"
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_THAT(
        compactText(bundle["log"]),
        EndsWith(
            R"("2026-03-11 14:05:09.123 INFO    int main(int, char**) Version 0.1.0",)"
            R"("2026-03-11 14:05:09.124 ERROR   field \"...\" is \"...\"",)"
            R"("2026-03-11 14:05:09.125 3 refused: ",)"
            R"("2026-03-11T14:05:10 host vlmmaster[7]: 2026-03-11 14:05:10.000 WARN    late ",)"
            R"("2026-03-11T14:05:10 host vlmmaster[7]: The machine manifest m.json cannot be used: ",)"
            R"("2026-03-11T14:05:10 host systemd[1]: vlmmaster.service: Failed with result 'watchdog'."])"))
        << "the machine's journal may have more, before these";

    m_folder.write("m.json", R"({"someip": {"address": "secret"}})");
    EXPECT_EQ(bundled()["configuration"]["manifest"]["error"].asString(), "is wrong at someip.address");
}
