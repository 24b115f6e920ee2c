/// How reports leave the shipping queue: one at a time, driven by the backend's results.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "ScriptedOrxClient.h"
#include "kyo/Status.h"
#include "report/VlmDataSubmissionControl.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"

namespace {

using testing::ElementsAre;
using vlmProd::orxStatus;
using vlmProd::VlmDataSubmissionControl;
using vlmTest::control;
using vlmTest::eventually;
using vlmTest::LogCapture;
using vlmTest::report;
using vlmTest::reportIn;
using vlmTest::ScriptedClient;

const std::string kIdle =
    "Since shipping queue is empty and send next data is true. Enabling to send data when inserted.";
const std::string kHandled = "ZEPH-49769 VLM handling ShippingBuffer according to data delivery result";

class SubmissionControl : public testing::Test {
  protected:
    ~SubmissionControl() override {
        if (m_control.started()) {
            m_control.stopVlmDataSubmissionControl();
            m_control.join();
        }
    }

    void start() {
        m_control.initializeServer("Catalog 1", {"TypeA"});
        m_control.start();
        ASSERT_TRUE(eventually([] { return ScriptedClient::current().started(); }));
    }

    /// Opens the channel and waits until the thread that this starts has found the queue empty.
    void open() {
        backend().masterControl(control());
        ASSERT_TRUE(m_log.waitFor(kHandled));
        m_log.clear();
    }

    void add(const std::string& name, int number = 1) {
        kyo::Json::Value value = report(name, number);
        EXPECT_TRUE(m_control.addReportToShippingQueue(value));
    }

    /// Waits for that many sends, waking the thread as a lost wake-up is allowed.
    bool sent(std::size_t count) {
        return eventually([&] { return backend().sends() >= count; }, [&] { m_control.SendWakeupSignal(); });
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

TEST_F(SubmissionControl, sends_at_once_when_idle_and_then_waits_for_a_result_of_zero) {
    start();
    open();
    add("first");
    ASSERT_TRUE(sent(1));
    add("second");
    add("third");
    m_control.SendWakeupSignal();
    ASSERT_TRUE(m_log.waitFor("Conditional wait", 2));
    EXPECT_EQ(backend().sends(), 1u);
    EXPECT_EQ(m_control.waitingReports(), 2u);

    backend().masterControl(control());
    backend().masterControl(control());
    EXPECT_THAT(sentNames(), ElementsAre("first", "second", "third"));
    EXPECT_EQ(m_control.waitingReports(), 0u);
}

TEST_F(SubmissionControl, returns_to_idle_on_a_result_of_zero_with_an_empty_queue) {
    start();
    open();
    add("first");
    ASSERT_TRUE(sent(1));
    ASSERT_TRUE(m_log.waitFor("Conditional wait"));
    m_log.clear();
    backend().masterControl(control());
    EXPECT_EQ(m_log.count(5, kIdle), 1u);
    add("second");
    EXPECT_TRUE(sent(2));
}

TEST_F(SubmissionControl, sends_the_same_message_again_after_result_one) {
    start();
    open();
    add("first");
    ASSERT_TRUE(sent(1));
    add("second");
    backend().masterControl(control(1));
    EXPECT_EQ(backend().sends(), 1u) << "only an opening message acts";
    backend().masterControl(control());
    backend().masterControl(control(1));
    backend().masterControl(control());
    EXPECT_THAT(sentNames(), ElementsAre("first", "first", "first"));
    const auto envelopes = backend().envelopes();
    EXPECT_EQ(envelopes[1]["messageId"], envelopes[0]["messageId"]);
    EXPECT_EQ(envelopes[2]["messageId"], envelopes[0]["messageId"]);
    EXPECT_EQ(envelopes[2]["orxClientDataReport"], envelopes[0]["orxClientDataReport"]);

    backend().masterControl(control());
    EXPECT_EQ(sentNames().back(), "second");
}

TEST_F(SubmissionControl, stops_on_result_two_and_keeps_the_queue) {
    start();
    open();
    add("first");
    ASSERT_TRUE(sent(1));
    add("second");
    m_log.clear();
    backend().masterControl(control(2));
    EXPECT_EQ(m_log.count(3, "orx status is to stop sending data"), 1u);
    EXPECT_EQ(m_log.count(5, kHandled), 1u);
    m_control.SendWakeupSignal();
    EXPECT_EQ(backend().sends(), 1u);
    EXPECT_EQ(m_control.waitingReports(), 1u);
}

TEST_F(SubmissionControl, discards_what_it_takes_while_the_channel_is_closed_or_nothing_is_permitted) {
    start();
    const auto discarded = kyo::Status::counter("reports.discarded").value();
    add("early");
    ASSERT_TRUE(eventually([&] { return m_log.hasPart(3, "Could not sent the orx data = {"); },
                           [&] { m_control.SendWakeupSignal(); }));
    // The first opening message makes the next send, although the flag is still set.
    add("kept");
    backend().masterControl(control());
    ASSERT_TRUE(sent(1));
    EXPECT_THAT(sentNames(), ElementsAre("kept"));

    add("unwanted");
    backend().masterControl(control(0, 0, {}));
    m_control.processReportBasedOnDataDelivery(orxStatus::SendNext);
    EXPECT_EQ(backend().sends(), 1u);
    EXPECT_EQ(kyo::Status::counter("reports.discarded").value(), discarded + 2);
    EXPECT_TRUE(m_log.hasPart(3, "\"reportName\":\"unwanted\""));
}

/// A backend that answers, on a thread of its own, while the first send is still under way.
class QuickBackend {
  public:
    explicit QuickBackend(std::vector<kyo::Json::Value> messages) {
        ScriptedClient::current().answerSends([this, messages](const kyo::Json::Value&) {
            if (!m_answered.exchange(true)) {
                m_thread = std::thread([this, messages] {
                    m_calling = true;
                    for (const auto& message : messages) {
                        ScriptedClient::current().masterControl(message);
                    }
                    m_done = true;
                });
                eventually([this] { return m_calling.load(); });
            }
            return 0;
        });
    }
    ~QuickBackend() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    bool done() const { return m_done; }

  private:
    std::atomic<bool> m_answered{false};
    std::atomic<bool> m_calling{false};
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

TEST_F(SubmissionControl, is_not_stuck_when_the_result_comes_before_the_send_has_returned) {
    start();
    open();
    const QuickBackend quick({control()});
    add("first");
    ASSERT_TRUE(eventually([&] { return quick.done(); }, [&] { m_control.SendWakeupSignal(); }));
    add("second");
    EXPECT_TRUE(sent(2)) << "the quick result was overwritten";
}

TEST_F(SubmissionControl, sends_again_when_result_one_comes_before_the_first_send_has_returned) {
    start();
    open();
    const QuickBackend quick({control(1), control()});
    add("first");
    ASSERT_TRUE(eventually([&] { return quick.done(); }, [&] { m_control.SendWakeupSignal(); }));
    EXPECT_THAT(sentNames(), ElementsAre("first", "first"));
}

TEST_F(SubmissionControl, does_not_resend_what_never_left_and_goes_on_with_the_next_report) {
    start();
    open();
    backend().answerSends([](const kyo::Json::Value&) { return -28; });
    add("lost");
    ASSERT_TRUE(sent(1));
    add("next");
    backend().answerSends(nullptr);
    ASSERT_TRUE(m_log.waitFor("Send vlm Data State: FAILED "));
    m_log.clear();
    backend().masterControl(control());
    EXPECT_TRUE(m_log.has(5, "No report was sent yet, so there is none to send again"));
    ASSERT_TRUE(sent(2));
    EXPECT_THAT(sentNames(), ElementsAre("lost", "next"));
}

TEST_F(SubmissionControl, resends_the_last_good_report_when_the_one_after_it_failed) {
    start();
    open();
    add("good");
    ASSERT_TRUE(sent(1));
    backend().answerSends([](const kyo::Json::Value&) { return -28; });
    add("lost");
    add("next");
    backend().masterControl(control());
    backend().answerSends(nullptr);
    backend().masterControl(control());  // the disk is writable again
    backend().masterControl(control());
    EXPECT_THAT(sentNames(), ElementsAre("good", "lost", "good", "next"));
}

TEST_F(SubmissionControl, tells_of_an_unknown_status_and_of_a_missing_link) {
    add("unsent");
    m_log.clear();
    m_control.processReportBasedOnDataDelivery(static_cast<orxStatus>(7));
    EXPECT_THAT(m_log.messages(3), ElementsAre("Do not know the status of last report sent"));
    m_control.processReportFromQueue();
    m_control.processLastReport();
    EXPECT_EQ(m_log.count(3, "ORx Server is null."), 2u);
}

TEST_F(SubmissionControl, logs_the_bytes_in_the_queue_around_each_insertion_without_line_numbers) {
    kyo::Json::Value value = report("r");
    m_control.addReportToShippingQueue(value);
    m_control.addReportToShippingQueue(value);
    const std::string text = kyo::Json::FastWriter().write(value);
    const std::string size = std::to_string(text.size());
    EXPECT_THAT(
        m_log.messages(5),
        ElementsAre("ZEPH-49288 VLM sending the Report to ShippingBuffer: " + text,
                    "Size of SHIP QUEUE BEFORE INSERT = 0", "Size of SHIP QUEUE AFTER INSERT = " + size,
                    "ZEPH-49288 VLM sending the Report to ShippingBuffer: " + text,
                    "Size of SHIP QUEUE BEFORE INSERT = " + size,
                    "Size of SHIP QUEUE AFTER INSERT = " + std::to_string(2 * text.size())));
    for (const auto& line : m_log.lines()) {
        EXPECT_EQ(line.line, 0) << line.text;
    }
}

/// Report control and others add, the thread makes first sends, the backend's thread answers: each report
/// goes out once and each producer's in its order.
TEST_F(SubmissionControl, loses_and_reorders_nothing_when_all_its_callers_race) {
    constexpr int kProducers = 3;
    constexpr int kEach = 60;
    start();
    open();
    std::atomic<int> unanswered{0};
    std::atomic<bool> done{false};
    std::atomic<bool> impatient{false};
    backend().answerSends([&](const kyo::Json::Value&) {
        if (++unanswered > 1) {
            impatient = true;
        }
        return 0;
    });
    std::thread answers([&] {
        while (!done) {
            if (unanswered > 0) {
                --unanswered;
                ScriptedClient::current().masterControl(control());
            }
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([this, producer] {
            for (int i = 0; i < kEach; ++i) {
                add("p" + std::to_string(producer), i);
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    const auto dropped = kyo::Status::counter("queue.shipping.dropped").value();
    const std::size_t expected = kProducers * kEach - dropped;
    EXPECT_TRUE(sent(expected));
    done = true;
    answers.join();
    EXPECT_FALSE(impatient) << "a report was sent before the result of the one before";
    std::map<std::string, int> last;
    for (const auto& envelope : backend().envelopes()) {
        const auto value = reportIn(envelope);
        const auto [at, isFirst] = last.emplace(value["reportName"].asString(), -1);
        EXPECT_GT(value["sequenceNumber"].asInt(), at->second);
        at->second = value["sequenceNumber"].asInt();
    }
    EXPECT_EQ(backend().sends(), expected);
}

}  // namespace
