/// How reports leave the shipping queue: one at a time, driven by the backend's results.
#include <random>

#include "examples/platform/ScriptedOrxClient.h"
#include "report/VlmDataSubmissionControl.h"
#include "tests/support/NoConfigurations.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

struct SubmissionControl : Test {
    ~SubmissionControl() override {
        if (m_control.started()) {
            m_control.stopVlmDataSubmissionControl();
            m_control.join();
            EXPECT_TRUE(m_log.has(5, "Exiting VlmDataSubmissionControl thread"));
        }
    }

    /// Starts, opens the channel and waits until the thread that this starts has found the queue empty.
    void startOpen() {
        m_control.initializeServer("Catalog 1", {"TypeA"}, std::make_shared<NoConfigurations>());
        m_control.start();
        ASSERT_TRUE(m_log.waitFor("Conditional wait because There is no report in shipping queue"));
        backend().masterControl(control());
        ASSERT_TRUE(
            m_log.waitFor("ZEPH-49769 VLM handling ShippingBuffer according to data delivery result"));
        m_log.clear();
    }

    void add(const std::string& name, int number = 1) {
        kyo::Json::Value value = report(name, number);
        EXPECT_TRUE(m_control.addReportToShippingQueue(value));
    }

    /// Waits for the condition, waking the thread as a lost wake-up is allowed.
    template <typename Condition>
    bool awaits(Condition&& condition) {
        return eventually(condition, [&] { m_control.SendWakeupSignal(); });
    }
    bool sent(std::size_t count) {
        return awaits([&] { return backend().sends() >= count; });
    }

    static ScriptedClient& backend() { return ScriptedClient::current(); }

    std::vector<std::string> sentNames() const {
        std::vector<std::string> names;
        for (const auto& envelope : backend().envelopes()) {
            names.push_back(reportIn(envelope)["reportName"].asString());
        }
        return names;
    }

    LogCapture m_log;
    VlmDataSubmissionControl m_control;
};

TEST_F(SubmissionControl, NeverResendsWhatNeverLeftButTheLastGoodReportIfThereIsOne) {
    startOpen();
    const auto noSpace = [] { return -28; };
    backend().answerSends(noSpace);
    add("lost");
    ASSERT_TRUE(m_log.waitFor("Send vlm Data State: FAILED "));
    EXPECT_THAT(m_log.messages(3), ElementsAre("Error in Sending orx data to orxmaster, error code =  -28",
                                               "Send vlm Data State: FAILED "));
    add("good");
    backend().answerSends(nullptr);
    m_log.clear();
    backend().masterControl(control());
    EXPECT_TRUE(m_log.has(5, "No report was sent yet, so there is none to send again"));
    ASSERT_TRUE(sent(2));

    backend().answerSends(noSpace);
    add("lost too");
    add("next");
    backend().masterControl(control());
    backend().answerSends(nullptr);
    backend().masterControl(control());  // the disk is writable again
    backend().masterControl(control());
    EXPECT_THAT(sentNames(), ElementsAre("lost", "good", "lost too", "good", "next"));
    backend().masterControl(control(0, 1));
    m_control.processReportBasedOnDataDelivery(orxStatus::SendLast);
    EXPECT_EQ(backend().sends(), 5u) << "nothing into a closed channel";
    backend().masterControl(control());
    EXPECT_TRUE(sent(6));
}

TEST_F(SubmissionControl, LogsTheBytesInTheQueueAndWhyAReportIsNotSent) {
    add("unsent");
    const std::string text = kyo::Json::FastWriter().write(report("unsent"));
    EXPECT_THAT(m_log.messages(5),
                ElementsAre("ZEPH-49288 VLM sending the Report to ShippingBuffer: " + text,
                            "Size of SHIP QUEUE BEFORE INSERT = 0",
                            "Size of SHIP QUEUE AFTER INSERT = " + std::to_string(text.size())));
    m_control.processReportFromQueue();
    m_control.processLastReport();
    m_control.processReportBasedOnDataDelivery(orxStatus::Stop);
    m_control.processReportBasedOnDataDelivery(static_cast<orxStatus>(7));
    kyo::Json::Value unreadable("text");
    EXPECT_TRUE(m_control.addReportToShippingQueue(unreadable));
    m_control.processReportFromQueue();
    m_control.initializeServer("Catalog 1", {"TypeA"}, std::make_shared<NoConfigurations>());
    add("unsent");
    m_control.processReportFromQueue();
    EXPECT_THAT(
        m_log.messages(3),
        ElementsAre("ORx Server is null.", "ORx Server is null.", "orx status is to stop sending data",
                    "Do not know the status of last report sent", "Can not parse from string to json report.",
                    "Could not sent the orx data = " + compactText(report("unsent"))));
    m_control.stopVlmDataSubmissionControl();
    EXPECT_TRUE(m_log.has(5, "Waking up Vlm Data Submission Control Thread to process the shipping queue"));
}

/// Openings, results, closings, refusals in any order: what the counters say is what has happened.
TEST_F(SubmissionControl, AccountsForEachReportWhateverTheBackendAndTheClientAnswer) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::minstd_rand chance(seed);
    startOpen();
    auto growth = [before = kyo::Status::counters()](const std::string& name) mutable {
        return counted(name) - before[name];
    };
    std::atomic<int> answer{0};
    std::mutex mutex;
    std::vector<int> answers;  // one for each envelope that the client was given
    backend().answerSends([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        answers.push_back(answer);
        return answers.back();
    });
    add("report", 0);
    ASSERT_TRUE(awaits([&] { return growth("reports.sent") == 1; }));
    const std::vector<kyo::Json::Value> messages{control(),  control(),     control(),        control(1),
                                                 control(2), control(0, 1), control(0, 0, {})};
    int added = 1;
    for (int step = 0; step < 3000; ++step) {
        const auto dice = chance() % 10;
        if (dice < 4) {
            add("report", added++);
        } else if (dice < 9) {
            backend().masterControl(messages[chance() % messages.size()]);
        } else {
            answer = chance() % 2 == 0 ? 0 : -28;
        }
    }
    answer = 0;
    EXPECT_TRUE(awaits([&] {
        backend().masterControl(control());
        return m_control.waitingReports() == 0 &&
               growth("reports.sent") == growth("reports.acknowledged") + growth("reports.overtaken");
    })) << "each report that was sent is acknowledged, or a later one was sent before that";

    const auto dropped = growth("queue.shipping.dropped");
    EXPECT_EQ(growth("reports.queued"), added - dropped);
    EXPECT_EQ(growth("reports.queued"),
              growth("reports.sent") + growth("reports.failed") + growth("reports.discarded"));
    const auto envelopes = backend().envelopes();
    ASSERT_EQ(envelopes.size(), answers.size());
    std::uint64_t taken = 0;
    std::set<int> arrived;
    for (std::size_t i = 0; i < envelopes.size(); ++i) {
        if (answers[i] == 0) {
            ++taken;
            arrived.insert(reportIn(envelopes[i])["sequenceNumber"].asInt());
        }
    }
    EXPECT_EQ(taken, growth("reports.sent") + growth("reports.resent"));
    EXPECT_EQ(envelopes.size() - taken, growth("reports.failed") + growth("reports.resendFailed"));
    EXPECT_EQ(arrived.size(), growth("reports.sent"));
    EXPECT_EQ(added - arrived.size(), growth("reports.failed") + growth("reports.discarded") + dropped)
        << "what never arrived was counted where it was lost, once";
}

/// Report control and others add, the thread makes first sends, the backend's thread answers, often before
/// the send has returned: each report goes out, each producer's in its order, and one that the backend wants
/// again right after its first time.
TEST_F(SubmissionControl, LosesAndReordersNothingWhenAllItsCallersRace) {
    constexpr int kProducers = 3;
    constexpr int kEach = 60;
    startOpen();
    std::atomic<int> unanswered{0};
    std::atomic<bool> done{false};
    std::atomic<bool> impatient{false};
    const auto dropped = counted("queue.shipping.dropped");
    const auto first = counted("reports.sent");
    backend().answerSends([&] {
        if (++unanswered > 1) {
            impatient = true;
        }
        return 0;
    });
    std::thread answers([&] {
        for (int turn = 0; !done;) {
            if (unanswered > 0) {
                --unanswered;
                if (++turn % 3 == 0) {
                    backend().masterControl(control(1));  // what opens the channel again sends it again
                }
                backend().masterControl(control());
            }
            std::this_thread::yield();
        }
    });
    Together(kProducers, [this](int producer) {
        for (int i = 1; i <= kEach; ++i) {
            add("p" + std::to_string(producer), i);
        }
    }).join();
    const auto expected = kProducers * kEach - (counted("queue.shipping.dropped") - dropped);
    EXPECT_TRUE(awaits([&] { return counted("reports.sent") - first == expected; }));
    done = true;
    answers.join();
    EXPECT_FALSE(impatient) << "a report was sent before the result of the one before";
    std::map<std::string, int> last;
    std::uint64_t different = 0;
    Value before;
    for (const auto& envelope : backend().envelopes()) {
        const auto value = reportIn(envelope);
        if (value != std::exchange(before, value)) {
            ++different;
            const int number = value["sequenceNumber"].asInt();
            EXPECT_GT(number, std::exchange(last[value["reportName"].asString()], number));
        }
    }
    EXPECT_EQ(different, expected);
    EXPECT_GT(backend().sends(), different);
}

}  // namespace
